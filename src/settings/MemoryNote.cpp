#include "settings/MemoryNote.h"

#include "base/Json.h"

namespace zuv {

MemoryNote MemoryNote::fromJson(const QJsonObject &o)
{
    using namespace json;
    MemoryNote n;
    n.id = required<QString>(o, QStringLiteral("id"));
    n.text = required<QString>(o, QStringLiteral("text"));
    n.at = required<double>(o, QStringLiteral("at"));
    n.kind = optional<QString>(o, QStringLiteral("kind"));
    n.updatedAt = optional<double>(o, QStringLiteral("updatedAt"));
    n.source = optional<QString>(o, QStringLiteral("source"));
    return n;
}

std::vector<MemoryNote> MemoryNote::narrowed(const std::vector<MemoryNote> &notes, const QString &query)
{
    const QString needle = query.trimmed();
    if (needle.isEmpty())
        return notes;
    std::vector<MemoryNote> out;
    for (const auto &note : notes)
        if (note.text.contains(needle, Qt::CaseInsensitive))
            out.push_back(note);
    return out;
}

MemoryEditor MemoryEditor::editing(const std::optional<MemoryNote> &note)
{
    MemoryEditor editor;
    editor.note = note;
    if (note) {
        editor.text = note->text;
        editor.kind = note->kindOrFact();
    }
    return editor;
}

} // namespace zuv
