#include "surface/InlineText.h"

namespace zuv {

QString InlineText::plain() const
{
    QString out;
    for (const auto &run : runs)
        out += run.text;
    return out;
}

void InlineText::append(const QString &text, Intent intents, const QString &link)
{
    if (text.isEmpty())
        return;
    if (!runs.empty() && runs.back().intents == intents && runs.back().link == link) {
        runs.back().text += text;
        return;
    }
    runs.push_back({text, intents, link});
}

} // namespace zuv
