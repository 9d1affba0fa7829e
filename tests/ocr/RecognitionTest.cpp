// Text in pictures: the language rules and the queue with a scripted reader,
// then real Tesseract in its helper on pictures drawn here.
#include "clipboard/RecognitionQueue.h"

#include "base/Clock.h"
#include "base/Defaults.h"
#include "clipboard/ClipRules.h"
#include "clipboard/ClipStore.h"
#include "clipboard/ClipboardHistory.h"
#include "platform/linux/TesseractRecognizer.h"
#include "FakePasteboard.h"
#include "FakeWorkspace.h"
#include "Support.h"

#include <gtest/gtest.h>

#include <QBuffer>
#include <QFont>
#include <QImage>
#include <QPainter>

#include <map>

using namespace zuv;

namespace {

// Black text on white, large and clear, as a screenshot would have it.
QByteArray picture(const QString &text, const QString &family = QStringLiteral("DejaVu Sans"), QSize size = {900, 160})
{
    QImage image(size, QImage::Format_RGB32);
    image.fill(Qt::white);
    QPainter painter(&image);
    QFont font(family);
    font.setPixelSize(48);
    painter.setFont(font);
    painter.setPen(Qt::black);
    painter.drawText(image.rect().adjusted(20, 0, -20, 0), Qt::AlignVCenter | Qt::AlignLeft, text);
    painter.end();
    return test::encoded(image);
}

// Answers by the picture's bytes and counts the runs; a picture it was not told
// about reads as nothing.
class Scripted final : public TextRecognizer {
public:
    std::map<QByteArray, QString> answers;
    QStringList runs;
    std::function<void()> during;
    QCoro::Task<QStringList> supportedLanguages() override { co_return QStringList{"en-US", "ja-JP"}; }
    QCoro::Task<QString> recognize(QByteArray picture, QStringList languages) override
    {
        runs << languages.join('+');
        if (during) {
            auto hook = std::exchange(during, nullptr);
            hook();
        }
        const auto it = answers.find(picture);
        co_return it == answers.end() ? QString() : it->second;
    }
};

struct Queue {
    test::TempHome home;
    TestClock clock;
    Defaults defaults{home.file("defaults.json")};
    test::FakePasteboard pasteboard;
    test::FakeWorkspace workspace;
    ClipboardHistory history{clock, defaults, pasteboard, workspace, nullptr, home.file("Zuv")};
    Scripted reader;
    RecognitionQueue queue{history, reader};

    Queue()
    {
        queue.preferred = [] { return QStringList{"en-US"}; };
        history.recognize = [this] { queue.start(); };
    }
    qint64 add(const QByteArray &data)
    {
        clock.advance(1);
        history.record({{QStringLiteral("image/png"), data}}, std::nullopt, clock.now());
        return history.clips().front().id;
    }
    int unread() { return int(history.store()->unrecognized().size()); }
};

} // namespace

TEST(Recognition, languagesFollowThePersonWithEnglishLastAndEastAsianTextGetsASecondPass)
{
    const QStringList supported{"en-US", "zh-Hans", "zh-Hant", "ja-JP", "ko-KR", "de-DE"};
    EXPECT_EQ(RecognitionQueue::textLanguages(supported, {"de-AT", "ja", "en-GB"}), (QStringList{"de-DE", "ja-JP", "en-US"}));
    EXPECT_EQ(RecognitionQueue::textLanguages(supported, {"zh-Hant-TW", "zh-Hans"}), (QStringList{"zh-Hant", "zh-Hans", "en-US"}));
    EXPECT_EQ(RecognitionQueue::textLanguages(supported, {"fr-FR", "fr"}), QStringList{"en-US"});
    EXPECT_TRUE(RecognitionQueue::textLanguages({}, {"en-US"}).isEmpty());
    EXPECT_TRUE(RecognitionQueue::eastAsian(QString::fromUtf8("abc 日本")));
    EXPECT_TRUE(RecognitionQueue::eastAsian(QString::fromUtf8("한국어")));
    EXPECT_FALSE(RecognitionQueue::eastAsian(QString::fromUtf8("Ünïcødé ©")));

    Scripted reader;
    reader.answers[QByteArray("p")] = QString::fromUtf8("日本語");
    EXPECT_EQ(test::await(RecognitionQueue::recognize(reader, "p", {"en-US", "ja-JP"})), QString::fromUtf8("日本語"));
    EXPECT_EQ(reader.runs, (QStringList{"en-US+ja-JP", "ja-JP+en-US"}));
    reader.runs.clear();
    test::await(RecognitionQueue::recognize(reader, "p", {"ja-JP", "en-US"})); // East Asian first: one pass
    EXPECT_EQ(reader.runs, QStringList{"ja-JP+en-US"});
    reader.runs.clear();
    reader.answers[QByteArray("q")] = "Latin only";
    test::await(RecognitionQueue::recognize(reader, "q", {"en-US"})); // no East Asian language: one pass
    EXPECT_EQ(reader.runs.size(), 1);
}

TEST(Recognition, eachPictureIsReadOnceAndPicturesCopiedMeanwhileAreReadToo)
{
    Queue q;
    q.reader.answers["A"] = "Invoice 42";
    // A picture copied while the queue runs. The hook is set first: the queue
    // may get as far as the reading within add().
    const QByteArray late = "late";
    q.reader.answers[late] = "copied later";
    q.reader.during = [&q, late] { q.add(late); };
    q.history.setEnabled(true);
    q.add("A");
    const qint64 blank = q.add("blank"); // nothing to read in it
    ASSERT_TRUE(test::waitUntil([&q] { return !q.queue.running() && q.unread() == 0; }));
    test::drain();
    ASSERT_TRUE(test::waitUntil([&q] { return !q.queue.running() && q.unread() == 0; }));
    QStringList titles;
    for (const Clip &c : q.history.clips())
        titles << q.history.title(c);
    EXPECT_TRUE(titles.contains("Invoice 42"));
    EXPECT_TRUE(titles.contains("copied later"));
    EXPECT_EQ(q.history.search("invoice").size(), 1u);
    for (const Clip &c : q.history.clips()) {
        if (c.id == blank) {
            EXPECT_TRUE(c.text.isEmpty());
        }
    }
    // Read once: a restart reads nothing again.
    const int runs = int(q.reader.runs.size());
    q.history.recognitionDone();
    test::drain();
    EXPECT_EQ(q.reader.runs.size(), runs);

    // A clip deleted while its text is being read is dropped quietly. The hook
    // is set first: the queue may get as far as the reading within add().
    q.reader.answers["gone"] = "never shown";
    const QString goneKey = "image:" + ClipRules::hash("gone");
    q.reader.during = [&q, goneKey] {
        std::vector<qint64> ids;
        for (const Clip &c : q.history.clips())
            if (c.key == goneKey)
                ids.push_back(c.id);
        q.history.remove(ids);
    };
    q.add("gone");
    ASSERT_TRUE(test::waitUntil([&q] { return !q.queue.running() && q.unread() == 0; }));
    for (const Clip &c : q.history.clips()) {
        EXPECT_NE(c.key, goneKey);
        EXPECT_NE(c.text, "never shown");
    }
}

TEST(Tesseract, readsEnglishAndJapaneseAndNothingFromEmptyOrBrokenPictures)
{
    // On a loaded machine a run takes seconds: its own time-out, and the test's
    // wait above that, leave room for it.
    TesseractRecognizer tesseract(QStringLiteral(ZUV_OCR), 60'000);
    constexpr int wait = 150'000;
    const QStringList supported = test::await(tesseract.supportedLanguages(), wait);
    for (const char *code : {"en-US", "zh-Hans", "zh-Hant", "ja-JP", "ko-KR"})
        EXPECT_TRUE(supported.contains(code)) << code;

    const QString english = test::await(tesseract.recognize(picture("Invoice 42 is paid"), {"en-US"}), wait);
    EXPECT_TRUE(english.contains("Invoice 42")) << english.toStdString();

    // A Western list with Japanese in it: the second pass favours Japanese.
    const QStringList languages = RecognitionQueue::textLanguages(supported, {"en-US", "ja-JP"});
    const QString japanese = test::await(RecognitionQueue::recognize(
        tesseract, picture(QString::fromUtf8("日本語の文章です"), QStringLiteral("WenQuanYi Micro Hei")), languages), wait);
    EXPECT_TRUE(RecognitionQueue::eastAsian(japanese)) << japanese.toStdString();
    EXPECT_TRUE(japanese.contains(QString::fromUtf8("日本語"))) << japanese.toStdString();

    QImage white(400, 200, QImage::Format_RGB32);
    white.fill(Qt::white);
    EXPECT_TRUE(test::await(tesseract.recognize(test::encoded(white), {"en-US"}), wait).isEmpty());
    EXPECT_TRUE(test::await(tesseract.recognize(QByteArray("\x89PNG\r\n\x1a\nbroken", 15), {"en-US"}), wait).isEmpty());
    EXPECT_TRUE(test::await(tesseract.recognize(picture("text"), {"xx-XX"}), wait).isEmpty());

    // A run that outlasts its time is killed and reads as nothing.
    TesseractRecognizer impatient(QStringLiteral(ZUV_OCR), 1);
    EXPECT_TRUE(test::await(impatient.recognize(picture("Too slow to wait for", "DejaVu Sans", {2400, 1600}), {"en-US"})).isEmpty());
    TesseractRecognizer missing(QStringLiteral("/nonexistent/zuv-ocr"));
    EXPECT_TRUE(test::await(missing.supportedLanguages()).isEmpty());
    EXPECT_TRUE(test::await(missing.recognize(picture("x"), {"en-US"})).isEmpty());
}
