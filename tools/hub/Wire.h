#pragma once

#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QString>

// What the hub's files share about the records and messages they read and write.
namespace zuv::hub {

// Ids of conversations, sessions, files and computers: letters, digits, - and _.
inline const QRegularExpression idPattern(QStringLiteral("^[A-Za-z0-9_-]{1,64}$"));
inline constexpr int longestText = 100000;

// A key's string, or empty.
inline QString string(const QJsonObject &o, const char *key) { return o.value(QLatin1String(key)).toString(); }

// One message on a socket.
inline QString compact(const QJsonObject &o) { return QString::fromUtf8(QJsonDocument(o).toJson(QJsonDocument::Compact)); }

} // namespace zuv::hub
