#pragma once

#include "platform/LanguageDetector.h"

namespace zuv {

// Language detection by CLD2, which tells Simplified from Traditional Chinese by script.
class Cld2LanguageDetector final : public LanguageDetector {
public:
    Language dominant(const QString &text) const override;
};

} // namespace zuv
