#pragma once

#include "app/AppActivity.h"
#include "chat/ChatModel.h"
#include "notify/Notifier.h"
#include "platform/Badge.h"

#include "FakeNotificationCenter.h"
#include "Fixture.h"

#include <gtest/gtest.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QWebSocket>

namespace zuv::test {

class FakeBadge final : public Badge {
public:
    int value = 0;
    void setCount(int count) override { value = count; }
    int count() const override { return value; }
};

inline QJsonObject conversationJson(const QString &id, const QString &title = QStringLiteral("T"), double at = 1000,
                                    std::optional<bool> unread = std::nullopt)
{
    QJsonObject o{{"id", id}, {"title", title}, {"createdAt", at}, {"updatedAt", at}, {"preview", ""}};
    if (unread)
        o.insert("unread", *unread);
    return o;
}

inline QJsonObject entryJson(const QString &id, const QString &role, const QString &text, double at,
                             const QString &conversation, std::optional<QString> channel = std::nullopt)
{
    QJsonObject o{{"id", id}, {"role", role}, {"text", text}, {"at", at}, {"conversation", conversation}};
    if (channel)
        o.insert("channel", *channel);
    return o;
}

inline QJsonObject sessionJson(const QString &id, const QString &status, double startedAt,
                               std::optional<double> updatedAt = std::nullopt)
{
    QJsonObject o{{"id", id}, {"cwd", "/w"}, {"project", "w"}, {"status", status}, {"startedAt", startedAt}};
    if (updatedAt)
        o.insert("updatedAt", *updatedAt);
    return o;
}

inline QJsonObject permissionJson(const QString &id, const QString &session, const QString &status = "pending")
{
    return {{"id", id},     {"sessionId", session}, {"project", "w"}, {"tool", "Bash"}, {"summary", "ls"},
            {"detail", "ls -la"}, {"at", 1000},       {"status", status}};
}

// A chat model against the in-process hub, in virtual time, with banners and the
// badge recorded. The hub answers every list with an empty one unless told.
struct ChatFixture : HubFixture {
    FakeNotificationCenter center;
    Notifier notifier{clock, defaults, center};
    FakeBadge badge;
    AppActivity activity;
    std::unique_ptr<ChatModel> chat;
    QWebSocket *server = nullptr; // the hub's end of the latest socket
    QStringList received;         // frames the hub got, all sockets
    int syncs = 0;

    explicit ChatFixture(std::optional<QUrl> serverUrl = std::nullopt) : HubFixture(serverUrl)
    {
        keychain.setToken(QStringLiteral("agent"));
        hub.grantTokens();
        list("/app/conversations", "conversations", {});
        list("/app/cc/sessions", "sessions", {});
        list("/app/cc/permissions", "permissions", {});
        QObject::connect(&hub, &TestHub::socketConnected, [this](QWebSocket *s) {
            server = s;
            QObject::connect(s, &QWebSocket::textMessageReceived, [this](const QString &m) { received << m; });
        });
        chat = std::make_unique<ChatModel>(clock, defaults, keychain, api, notifier, badge, activity);
    }
    ~ChatFixture()
    {
        chat.reset();
        drain();
    }

    void list(const QString &path, const QString &key, QJsonArray items)
    {
        hub.on("GET", path, TestHub::json(QJsonObject{{key, items}}));
    }

    // Starts the model and waits until the hub has the socket and its first ping,
    // and the sessions and requests of the connection are loaded, so that frames
    // sent next are not undone by those first loads.
    bool connectSocket()
    {
        const qsizetype pings = received.count(QStringLiteral("{\"kind\":\"ping\"}"));
        const size_t sockets = hub.sockets().size();
        int loads = 0;
        QMetaObject::Connection counting = QObject::connect(chat.get(), &ChatModel::sessionsChanged, [&] { ++loads; });
        chat->start();
        const bool up = waitUntil([&] {
            return hub.sockets().size() > sockets && received.count(QStringLiteral("{\"kind\":\"ping\"}")) > pings
                && loads >= 2;
        });
        QObject::disconnect(counting);
        return up;
    }

    // Sends frames from the hub and waits until the model has applied them: a
    // session step sent after them is stored in order.
    bool send(const QStringList &frames)
    {
        if (!server)
            return false;
        for (const QString &f : frames)
            server->sendTextMessage(f);
        const QString mark = QString::number(++syncs);
        server->sendTextMessage(QStringLiteral("{\"kind\":\"step\",\"target\":\"cc\",\"ref\":\"sync\",\"step\":\"%1\"}")
                                    .arg(mark));
        return waitUntil([&] { return chat->sessionSteps().value(QStringLiteral("sync")) == mark; });
    }
    bool frame(const QJsonObject &envelope)
    {
        return send({QString::fromUtf8(QJsonDocument(envelope).toJson(QJsonDocument::Compact))});
    }

    const Conversation *listed(const QString &id) const
    {
        for (const Conversation &c : chat->conversations())
            if (c.id == id)
                return &c;
        return nullptr;
    }
    QStringList ids(const QString &conversation) const
    {
        QStringList out;
        if (const EntryList *l = chat->entries(conversation))
            for (const Entry &e : *l)
                out << e.id;
        return out;
    }
};

} // namespace zuv::test
