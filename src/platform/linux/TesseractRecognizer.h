#pragma once

#include "platform/TextRecognizer.h"

#include <QString>

#include <optional>

namespace zuv {

// Tesseract in the helper zuv-ocr, one picture per run, at low priority
// and with one thread. A run that crashes, fails or outlasts its time is killed
// and reads as no text.
class TesseractRecognizer final : public TextRecognizer {
public:
    explicit TesseractRecognizer(QString helper, int timeoutMs = 30'000);

    QCoro::Task<QStringList> supportedLanguages() override;
    QCoro::Task<QString> recognize(QByteArray picture, QStringList languages) override;

    // Tesseract's names and our codes: "jpn" is "ja-JP", "chi_sim" "zh-Hans".
    static std::optional<QString> code(const QString &tesseract);
    static std::optional<QString> tesseractName(const QString &code);

private:
    QString m_helper;
    int m_timeoutMs;
    std::optional<QStringList> m_supported;
};

} // namespace zuv
