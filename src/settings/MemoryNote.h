#pragma once

#include <QJsonObject>
#include <QString>

#include <optional>
#include <vector>

namespace zuv {

// Something the assistant keeps about the user.
struct MemoryNote {
    QString id;
    QString text;
    double at = 0;
    std::optional<QString> kind; // none counts as "fact"
    std::optional<double> updatedAt;
    std::optional<QString> source; // "auto": learned by the assistant itself

    static MemoryNote fromJson(const QJsonObject &object);
    bool operator==(const MemoryNote &) const = default;

    QString kindOrFact() const { return kind.value_or(QStringLiteral("fact")); }
    bool learned() const { return source == QStringLiteral("auto"); }

    // The notes whose text holds `query`, ignoring case; all of them for an empty query.
    static std::vector<MemoryNote> narrowed(const std::vector<MemoryNote> &notes, const QString &query);
};

// The state of the note editor.
struct MemoryEditor {
    std::optional<MemoryNote> note;
    QString text;
    QString kind = QStringLiteral("fact");

    static MemoryEditor editing(const std::optional<MemoryNote> &note);
    QString trimmedText() const { return text.trimmed(); }
    bool canSave() const { return !trimmedText().isEmpty(); }
};

} // namespace zuv
