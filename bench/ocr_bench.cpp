// Text recognition of a 1280×800 screenshot of text through the zuv-ocr helper:
// English only, and with the second pass that favours East Asian languages.
#include "clipboard/RecognitionQueue.h"
#include "platform/linux/TesseractRecognizer.h"

#include <QBuffer>
#include <QElapsedTimer>
#include <QFont>
#include <QGuiApplication>
#include <QImage>
#include <QPainter>
#include <QCoro/QCoroTask>

#include <algorithm>
#include <cstdio>
#include <vector>

using namespace zuv;

namespace {

QByteArray screenshot()
{
    QImage image(1280, 800, QImage::Format_RGB32);
    image.fill(QColor(250, 250, 250));
    QPainter painter(&image);
    QFont font(QStringLiteral("DejaVu Sans"));
    font.setPixelSize(16);
    painter.setFont(font);
    painter.setPen(QColor(30, 30, 30));
    const QStringList lines{
        "Release notes for the desktop client, version 0.1.0",
        "- The clipboard history keeps text, pictures and file lists.",
        "- Password managers' copies are never read or stored.",
        "- The panel opens at the pointer and pastes into the window in front.",
        "- Pictures become searchable by the text in them.",
        "Known issues: none that would stop a release on Friday.",
    };
    int y = 40;
    for (int block = 0; block < 5; ++block)
        for (const QString &line : lines) {
            painter.drawText(40, y, line);
            y += 24;
        }
    painter.end();
    QByteArray png;
    QBuffer buffer(&png);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, "PNG");
    return png;
}

double median(std::vector<qint64> v)
{
    std::sort(v.begin(), v.end());
    return double(v[v.size() / 2]) / 1e6;
}

} // namespace

int main(int argc, char **argv)
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication app(argc, argv);
    TesseractRecognizer tesseract(QStringLiteral(ZUV_OCR), 120'000);
    const QByteArray picture = screenshot();
    std::vector<qint64> one;
    std::vector<qint64> two;
    QString text;
    for (int round = 0; round < 3; ++round) {
        QElapsedTimer timer;
        timer.start();
        text = QCoro::waitFor(tesseract.recognize(picture, {QStringLiteral("en-US")}));
        one.push_back(timer.nsecsElapsed());
        timer.restart();
        QCoro::waitFor(RecognitionQueue::recognize(tesseract, picture, {QStringLiteral("en-US"), QStringLiteral("ja-JP")}));
        two.push_back(timer.nsecsElapsed());
    }
    std::printf("read %lld characters, first line: %s\n", qlonglong(text.size()), qPrintable(text.section('\n', 0, 0)));
    std::printf("ocr: %.0f ms one pass, %.0f ms two passes\n", median(one), median(two));
    return 0;
}
