#pragma once

#include <QString>

namespace zuv {

// The dominant language of a text.
class LanguageDetector {
public:
    enum class Language { unknown, simplifiedChinese, traditionalChinese, japanese, dutch, german, french, spanish, other };
    virtual ~LanguageDetector() = default;
    virtual Language dominant(const QString &text) const = 0;
};

} // namespace zuv
