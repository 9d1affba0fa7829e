#include "base/Clock.h"
#include "platform/linux/RealClock.h"
#include "base/Job.h"
#include "base/Log.h"
#include "platform/linux/Cld2LanguageDetector.h"
#include "platform/linux/QtSynthesizer.h"
#include "platform/Synthesizer.h"
#include "voice/Speaker.h"

#include "FakeSynthesizer.h"
#include "Support.h"

#include <gtest/gtest.h>

using namespace zuv;
using test::FakeSynthesizer;

namespace {

QCoro::Task<void> speakInto(Speaker &speaker, QString text, bool *done)
{
    co_await speaker.speak(text);
    *done = true;
}

} // namespace

TEST(Speaker, plainReducesMarkdownToSpeech)
{
    EXPECT_EQ(Speaker::plain("```\nlet x = 1\n```"), "(code)");
    EXPECT_EQ(Speaker::plain("```\n```\n\n---\n"), "(code)");
    EXPECT_EQ(Speaker::plain("## Title\n\n> quoted **bold** and _it_\n\n- item\n1. first"),
              "Title\nquoted bold and it\nitem\n1. first");
    EXPECT_EQ(Speaker::plain("See [the docs](https://x.org) and ![pic](a.png) at https://y.org/z now"),
              "See the docs and  at  now");
    EXPECT_EQ(Speaker::plain("| a | b |\n|---|:-:|\n| 1 | 2 |"), "a  b \n 1  2");
    EXPECT_EQ(Speaker::plain("**\n\n__**"), "");
    // A link ends at any white space, Unicode's included.
    EXPECT_EQ(Speaker::plain(QStringLiteral("詳しくは https://x.org/a\u3000をご覧ください。")),
              QStringLiteral("詳しくは \u3000をご覧ください。"));
    EXPECT_EQ(Speaker::plain(QStringLiteral("Voir https://x.org/a\u00a0: la suite")), QStringLiteral("Voir \u00a0: la suite"));
}

TEST(Speaker, aSecondReadingEndsTheFirst)
{
    FakeSynthesizer synth;
    Cld2LanguageDetector detector;
    Speaker speaker(synth, detector);
    bool first = false;
    bool second = false;
    spawn(speakInto(speaker, "Hello there, this is a reply.", &first), "first");
    EXPECT_FALSE(first);
    EXPECT_TRUE(speaker.speaking());
    spawn(speakInto(speaker, "A second reply.", &second), "second");
    EXPECT_TRUE(test::waitUntil([&] { return first; })) << "the first call returns";
    EXPECT_FALSE(second);
    EXPECT_EQ(synth.stops, 1);
    EXPECT_EQ(synth.said, (QStringList{"Hello there, this is a reply.", "A second reply."}));
    EXPECT_DOUBLE_EQ(synth.lastRate, 1.05);
    synth.end();
    EXPECT_TRUE(test::waitUntil([&] { return second; }));

    // Nothing to say: returns at once without touching the synthesiser.
    bool nothing = false;
    spawn(speakInto(speaker, "** __ ~~ ```", &nothing), "nothing");
    EXPECT_TRUE(nothing);
    EXPECT_EQ(synth.said.size(), 2);
}

TEST(Speaker, withoutASpeechServiceItReturnsAndSaysSoOnce)
{
    FakeSynthesizer synth;
    synth.up = false;
    Cld2LanguageDetector detector;
    Speaker speaker(synth, detector);
    QStringList logged;
    setLogSink([&](const QString &line) { logged << line; });
    bool done = false;
    spawn(speakInto(speaker, "Hello", &done), "a");
    EXPECT_TRUE(done);
    spawn(speakInto(speaker, "Again", &done), "b");
    EXPECT_EQ(logged, (QStringList{"Read aloud is not available: no speech-dispatcher"}));
    EXPECT_TRUE(synth.said.isEmpty());
    setLogSink({});
}

TEST(Speaker, languagesMapToTheirTags)
{
    FakeSynthesizer synth;
    Cld2LanguageDetector detector;
    Speaker speaker(synth, detector);
    EXPECT_EQ(speaker.language("我们今天下午去公园散步，然后在附近的餐厅吃晚饭。这个城市的天气很好。"), "zh-CN");
    EXPECT_EQ(speaker.language("我們今天下午去公園散步，然後在附近的餐廳吃晚飯。這個城市的天氣很好。"), "zh-TW");
    EXPECT_EQ(speaker.language("今日は天気がいいので、公園を散歩してから近くのレストランで晩ご飯を食べました。"), "ja-JP");
    EXPECT_EQ(speaker.language("Vandaag gaan we wandelen in het park en daarna eten we in een restaurant in de buurt."), "nl-NL");
    EXPECT_EQ(speaker.language("Heute gehen wir im Park spazieren und essen danach in einem Restaurant in der Nähe."), "de-DE");
    EXPECT_EQ(speaker.language("Aujourd'hui nous allons nous promener dans le parc puis dîner dans un restaurant."), "fr-FR");
    EXPECT_EQ(speaker.language("Hoy vamos a pasear por el parque y después cenaremos en un restaurante cercano."), "es-ES");
    EXPECT_EQ(speaker.language("Oggi andiamo a fare una passeggiata nel parco e poi ceniamo in un ristorante."), "en-US");
    EXPECT_EQ(speaker.language(""), "en-US");
}

// The real synthesiser on the test session's speech-dispatcher, which speaks with
// espeak-ng into a null audio device: an utterance must begin and run to its end.
TEST(QtSynthesizer, aRealUtteranceRunsToItsEnd)
{
    RealClock clock;
    QtSynthesizer synth(clock);
    ASSERT_TRUE(synth.available()) << synth.problem().toStdString();
    int finished = 0;
    QObject::connect(&synth, &Synthesizer::finished, [&] { ++finished; });
    synth.say("Zuv reads this sentence aloud, all of it.", "en-US", 1.05);
    ASSERT_TRUE(test::waitUntil([&] { return finished == 1; }, 90000)) << synth.problem().toStdString();
    EXPECT_EQ(synth.completed(), 1) << synth.problem().toStdString();

    // Stopped mid-way: finished once, and not counted as spoken to the end.
    synth.say("This one is stopped before it can end, however long it would have taken to say.", "en-US", 1.0);
    synth.stop();
    EXPECT_EQ(finished, 2);
    test::drain();
    EXPECT_EQ(finished, 2);
    EXPECT_EQ(synth.completed(), 1);
}

// No speech service at all: say() finishes at once, and why is told.
TEST(QtSynthesizer, withoutTheServiceSayFinishesAtOnce)
{
    qputenv("SPEECHD_ADDRESS", "unix_socket:/nonexistent/speechd.sock");
    TestClock clock;
    QtSynthesizer synth(clock);
    int finished = 0;
    QObject::connect(&synth, &Synthesizer::finished, [&] { ++finished; });
    synth.say("Nobody hears this.", "en-US", 1.0);
    ASSERT_TRUE(test::waitUntil([&] { return finished == 1; }, 5000));
    clock.advance(QtSynthesizer::startLimit + 1);
    test::drain();
    EXPECT_EQ(finished, 1) << "finished exactly once";
    EXPECT_FALSE(synth.problem().isEmpty());
    EXPECT_EQ(synth.completed(), 0);
}
