// The socket's frame handler under load: 1,000 listed chats, 50 of them loaded,
// and 20,000 "message" and "step" frames of 1-4 KB each. The same run with ten
// times the loaded entries shows that a frame's cost does not grow with them.
#include "app/AppActivity.h"
#include "chat/ChatModel.h"
#include "notify/Notifier.h"
#include "platform/Badge.h"
#include "platform/NotificationCenter.h"

#include "Fixture.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRandomGenerator>

#include <algorithm>
#include <cstdio>

using namespace zuv;
using namespace zuv::test;

namespace {

class QuietCenter final : public NotificationCenter {
public:
    void add(const Request &) override {}
    void remove(const QStringList &) override {}
    QStringList delivered(const QString &) const override { return {}; }
};

class QuietBadge final : public Badge {
public:
    void setCount(int c) override { m_count = c; }
    int count() const override { return m_count; }

private:
    int m_count = 0;
};

constexpr int listed = 1000;
constexpr int loaded = 50;
constexpr int frames = 20000;

QString chatId(int i) { return QStringLiteral("c%1").arg(i); }

QJsonObject entry(const QString &id, const QString &role, const QString &text, double at, const QString &conv,
                  const QString &channel)
{
    return {{"id", id}, {"role", role}, {"text", text}, {"at", at}, {"conversation", conv}, {"channel", channel}};
}

QString prose(QRandomGenerator &random, int bytes)
{
    static const QString words = QStringLiteral(
        "The build passed on the second try after the cache was cleared. Next, **check** the `config` and "
        "rerun the [tests](https://example.org/ci) with more logging. ");
    QString out;
    while (out.size() < bytes)
        out += words.mid(int(random.bounded(words.size() / 2)));
    return out.left(bytes);
}

struct Result {
    double perSecond = 0;
    double p99 = 0;
};

// A model against the test hub with 1,000 listed chats, its banners and badge
// going nowhere. The model ends before the hub, and so do the reloads it started.
struct Bench {
    HubFixture f;
    QuietCenter center;
    Notifier notifier{f.clock, f.defaults, center};
    QuietBadge badge;
    AppActivity activity;
    std::unique_ptr<ChatModel> model;

    Bench()
    {
        f.keychain.setToken(QStringLiteral("agent"));
        f.hub.grantTokens();
        QJsonArray list;
        for (int i = 0; i < listed; ++i)
            list.append(QJsonObject{{"id", chatId(i)}, {"title", QStringLiteral("Chat %1").arg(i)}, {"createdAt", i},
                                    {"updatedAt", i}, {"preview", ""}});
        f.hub.on("GET", "/app/conversations", TestHub::json(QJsonObject{{"conversations", list}}));
        model = std::make_unique<ChatModel>(f.clock, f.defaults, f.keychain, f.api, notifier, badge, activity);
        await(model->reloadConversations(false));
    }
    ~Bench()
    {
        model.reset();
        drain();
    }
};

Result run(int entriesPerChat)
{
    Bench bench;
    QRandomGenerator random(42);
    const QString filler = prose(random, 600);
    bench.f.hub.on("GET", "/app/history", [&](const TestHub::Request &r) {
        const QString conv = r.query("conversation");
        QJsonArray history;
        for (int n = 0; n < entriesPerChat; ++n)
            history.append(entry(QStringLiteral("%1-%2").arg(conv).arg(n), n % 2 ? "assistant" : "user", filler, n,
                                 conv, "app"));
        return TestHub::json(QJsonObject{{"entries", history}});
    });
    ChatModel &chat = *bench.model;
    for (int i = 0; i < loaded; ++i)
        await(chat.refresh(chatId(i)));

    // Frames made up front: a user's message opens a wait, steps report on it, and
    // the reply ends it; now and then a message is edited in place.
    std::vector<QByteArray> feed;
    feed.reserve(frames);
    int serial = 0;
    while (int(feed.size()) < frames) {
        const QString conv = chatId(int(random.bounded(loaded)));
        const double at = 1e6 + serial;
        const QString channel = random.bounded(4) == 0 ? QStringLiteral("telegram") : QStringLiteral("app");
        const auto push = [&feed](const QJsonObject &o) { feed.push_back(QJsonDocument(o).toJson(QJsonDocument::Compact)); };
        push({{"kind", "message"},
              {"entry", entry(QStringLiteral("u%1").arg(++serial), "user", prose(random, 1000), at, conv, channel)}});
        for (int s = 0; s < 2; ++s)
            push({{"kind", "step"}, {"ref", conv}, {"step", prose(random, 1000 + int(random.bounded(1000)))}});
        const QString reply = QStringLiteral("a%1").arg(++serial);
        push({{"kind", "message"},
              {"entry", entry(reply, "assistant", prose(random, 1000 + int(random.bounded(3000))), at + 1, conv, channel)}});
        if (random.bounded(5) == 0)
            push({{"kind", "message"},
                  {"entry", entry(reply, "assistant", prose(random, 2000), at + 1, conv, channel)}});
    }
    feed.resize(frames);

    std::vector<qint64> costs;
    costs.reserve(feed.size());
    QElapsedTimer total;
    total.start();
    for (const QByteArray &frame : feed) {
        QElapsedTimer one;
        one.start();
        chat.handle(frame);
        costs.push_back(one.nsecsElapsed());
    }
    const double seconds = double(total.nsecsElapsed()) / 1e9;
    std::sort(costs.begin(), costs.end());
    return {double(feed.size()) / seconds, double(costs[costs.size() * 99 / 100]) / 1000.0};
}

// Hostile frames of 100 KB each: the handler must stay linear in them.
void worstCases()
{
    Bench bench;
    ChatModel &chat = *bench.model;

    constexpr int size = 100 * 1024;
    QByteArray titles = "{\"kind\":\"titles\",\"titles\":[";
    for (int i = 0; titles.size() < size; ++i)
        titles += QStringLiteral("{\"id\":\"c%1\",\"title\":\"t%1\"},").arg(i % (2 * listed)).toUtf8();
    titles.chop(1);
    titles += "]}";
    QByteArray emoji;
    for (int i = 0; emoji.size() < size; ++i)
        emoji += "\xF0\x9F\x98\x80\\n";
    const std::vector<std::pair<const char *, QByteArray>> cases{
        {"nested brackets", QByteArray(size, '[')},
        {"unclosed string", "{\"kind\":\"message\",\"entry\":{\"text\":\"" + QByteArray(size, 'a')},
        {"titles for every chat", titles},
        {"a message of emoji and line feeds",
         "{\"kind\":\"message\",\"entry\":{\"id\":\"e\",\"role\":\"user\",\"text\":\"" + emoji
             + "\",\"at\":1,\"conversation\":\"c5\",\"channel\":\"telegram\"}}"},
        {"many unknown keys", "{\"kind\":\"seen\"," + QByteArray("\"k\":1,").repeated(size / 6) + "\"conversation\":\"c1\"}"},
    };
    for (const auto &[name, frame] : cases) {
        QElapsedTimer timer;
        timer.start();
        chat.handle(frame);
        std::printf("chat frame worst: %s, %.2f ms\n", name, double(timer.nsecsElapsed()) / 1e6);
    }
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    worstCases();
    const Result more = run(2000);
    std::printf("chat frames with 2000 entries per loaded chat: %.0f/s, p99 %.1f µs\n", more.perSecond, more.p99);
    const Result headline = run(200);
    std::printf("chat frames: %.0f/s, p99 %.1f µs\n", headline.perSecond, headline.p99);
    return 0;
}
