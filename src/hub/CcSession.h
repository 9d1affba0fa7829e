#pragma once

#include "hub/Entry.h"
#include "hub/Usage.h"

#include <QJsonObject>
#include <QString>

#include <optional>
#include <vector>

namespace zuv {

// One agent session (Claude Code or Codex) on one of the account's computers.
struct CcSession {
    QString id;
    QString cwd;
    QString project;
    std::optional<QString> title;
    QString status; // "busy"/"running": working; "failed": last turn failed; else waiting
    double startedAt = 0;
    std::optional<double> updatedAt;
    std::optional<QString> lastReply;
    std::optional<QString> agent; // none counts as "claude"
    std::optional<Usage> usage;
    std::optional<QString> resumeCommand;
    std::optional<QString> model;
    std::optional<QString> effort;
    std::optional<bool> terminal;
    std::optional<QString> device;
    std::optional<QString> deviceName;

    static CcSession fromJson(const QJsonObject &object);
    bool operator==(const CcSession &) const = default;
    size_t hash() const;
};

// One item of a session's transcript.
struct CcItem {
    QString role; // "user", "tool" or the assistant's
    QString text;
    std::optional<double> at;
    std::optional<Usage> usage;
    std::optional<std::vector<Entry::File>> files;

    static CcItem fromJson(const QJsonObject &object);
    bool operator==(const CcItem &) const = default;
    size_t hash() const;
};

} // namespace zuv
