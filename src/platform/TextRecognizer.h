#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QCoro/QCoroTask>

namespace zuv {

// Reads the text in pictures.
class TextRecognizer {
public:
    virtual ~TextRecognizer() = default;
    // The languages it can read, as codes such as "en-US" or "zh-Hans"; empty
    // when it cannot read at all.
    virtual QCoro::Task<QStringList> supportedLanguages() = 0;
    // The text in the picture, lines in reading order, the first language
    // favoured; empty when nothing could be read, whatever the reason.
    virtual QCoro::Task<QString> recognize(QByteArray picture, QStringList languages) = 0;
};

} // namespace zuv
