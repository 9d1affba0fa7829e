#include "platform/linux/Cld2LanguageDetector.h"

#include <cld2/public/compact_lang_det.h>

namespace zuv {

LanguageDetector::Language Cld2LanguageDetector::dominant(const QString &text) const
{
    const QByteArray utf8 = text.toUtf8();
    if (utf8.trimmed().isEmpty())
        return Language::unknown;
    bool reliable = false;
    const CLD2::Language found = CLD2::DetectLanguage(utf8.constData(), int(utf8.size()), true, &reliable);
    switch (found) {
    case CLD2::CHINESE: return Language::simplifiedChinese;
    case CLD2::CHINESE_T: return Language::traditionalChinese;
    case CLD2::JAPANESE: return Language::japanese;
    case CLD2::DUTCH: return Language::dutch;
    case CLD2::GERMAN: return Language::german;
    case CLD2::FRENCH: return Language::french;
    case CLD2::SPANISH: return Language::spanish;
    case CLD2::UNKNOWN_LANGUAGE: return Language::unknown;
    default: return Language::other;
    }
}

} // namespace zuv
