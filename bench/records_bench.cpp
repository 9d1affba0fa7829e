// Decoding of the hub's two largest routine replies: the conversation list and a
// page of history.
#include "base/Json.h"
#include "hub/Conversation.h"
#include "hub/Entry.h"

#include <QCoreApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <benchmark/benchmark.h>

using namespace zuv;

namespace {

struct ConversationList {
    std::vector<Conversation> conversations;
    static ConversationList fromJson(const QJsonObject &o)
    {
        return {json::required<std::vector<Conversation>>(o, QStringLiteral("conversations"))};
    }
};

struct History {
    std::vector<Entry> entries;
    static History fromJson(const QJsonObject &o)
    {
        return {json::required<std::vector<Entry>>(o, QStringLiteral("entries"))};
    }
};

QByteArray conversationsBody(int count)
{
    QJsonArray list;
    for (int i = 0; i < count; ++i) {
        QJsonObject c{{"id", QStringLiteral("c%1").arg(i, 15, 10, QLatin1Char('0'))},
                      {"title", QStringLiteral("Conversation about topic number %1").arg(i)},
                      {"createdAt", 1.7e12 + i * 1000.0},
                      {"updatedAt", 1.7e12 + i * 2000.0},
                      {"preview", QStringLiteral("The last thing that was said in this chat, cut for the list %1").arg(i)}};
        if (i % 3 == 0)
            c.insert("unread", true);
        if (i % 5 == 0)
            c.insert("channel", "telegram");
        list.append(c);
    }
    return QJsonDocument(QJsonObject{{"conversations", list}}).toJson(QJsonDocument::Compact);
}

QByteArray historyBody(int count, int textBytes)
{
    QString text;
    while (text.size() < textBytes)
        text += QStringLiteral("Some **Markdown** reply text with `code` and a [link](https://example.org). ");
    text.truncate(textBytes);
    QJsonArray list;
    for (int i = 0; i < count; ++i) {
        QJsonObject e{{"id", QStringLiteral("m%1").arg(i)},
                      {"role", i % 2 ? "assistant" : "user"},
                      {"text", text},
                      {"at", 1.7e12 + i * 1000.0},
                      {"conversation", "main"}};
        if (i % 2) {
            e.insert("usage", QJsonObject{{"ms", 1500}, {"turns", 2}, {"input", 1200}, {"output", 300},
                                          {"usd", 0.012}, {"model", "claude-opus-5-5"}, {"effort", "high"}});
        }
        if (i % 7 == 0)
            e.insert("files", QJsonArray{QJsonObject{{"key", "k1"}, {"name", "a.png"}, {"mime", "image/png"}}});
        list.append(e);
    }
    return QJsonDocument(QJsonObject{{"entries", list}}).toJson(QJsonDocument::Compact);
}

void decodeConversations(benchmark::State &state)
{
    const QByteArray body = conversationsBody(1000);
    for (auto _ : state) {
        auto decoded = json::decodeBody<ConversationList>(body);
        benchmark::DoNotOptimize(decoded);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * body.size());
}
BENCHMARK(decodeConversations)->Unit(benchmark::kMicrosecond);

void decodeHistory(benchmark::State &state)
{
    const QByteArray body = historyBody(60, 2048);
    for (auto _ : state) {
        auto decoded = json::decodeBody<History>(body);
        benchmark::DoNotOptimize(decoded);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * body.size());
}
BENCHMARK(decodeHistory)->Unit(benchmark::kMicrosecond);

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
