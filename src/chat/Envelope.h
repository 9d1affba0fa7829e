#pragma once

#include "hub/CcPermission.h"
#include "hub/Entry.h"

#include <QByteArray>
#include <QString>

#include <optional>
#include <vector>

namespace zuv {

// One text frame of the chat socket.
struct Envelope {
    struct CcEventRef {
        QString type;
        QString sessionId;
        static CcEventRef fromJson(const QJsonObject &object);
    };
    struct Title {
        QString id;
        QString title;
        static Title fromJson(const QJsonObject &object);
    };

    QString kind;
    std::optional<Entry> entry;
    std::optional<QString> target;
    std::optional<QString> ref;
    std::optional<QString> step;
    std::optional<QString> conversation;
    std::optional<CcPermission> request;
    std::optional<CcEventRef> event;
    std::optional<std::vector<Title>> titles;

    static Envelope fromJson(const QJsonObject &object);
    // None for a frame that is not a JSON object of this shape.
    static std::optional<Envelope> decode(const QByteArray &frame);
};

} // namespace zuv
