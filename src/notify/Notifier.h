#pragma once

#include "base/Shared.h"

#include <QObject>
#include <QString>

#include <functional>
#include <optional>

namespace zuv {

class Clock;
class Defaults;
class NotificationCenter;
struct CcPermission;
struct CcSession;
struct Entry;

// Every banner of the app: a reply, a tool request that can be answered from the
// banner, a finished agent session, a clipboard from another device. What the
// person does with a banner comes back as `answer` or `open`.
class Notifier : public QObject, public Shared<Notifier> {
    Q_OBJECT
public:
    // What is on screen, asked at the moment a banner would go up. Each is filled
    // by its owner (the chat engine, Quick Ask); an empty one counts as nothing.
    struct Screen {
        std::function<bool()> appActive;
        std::function<std::optional<QString>()> visibleConversation;
        std::function<std::optional<QString>()> visibleSession;
        std::function<std::optional<QString>()> quickAskConversation; // while its panel is up
    };

    Notifier(Clock &clock, Defaults &defaults, NotificationCenter &center, QObject *parent = nullptr);

    void setScreen(Screen screen) { m_screen = std::move(screen); }

    // "mac-notifications": a missing key or one of another type counts as on.
    bool enabled() const;

    void reply(const Entry &entry, const QString &title);
    void permission(const CcPermission &request);
    void sessionDone(const CcSession &session);
    // `text` is what the clipboard holds as text, for the kinds that are neither a
    // picture nor files.
    void clipboard(const QString &from, const QString &kind, int count, const std::optional<QString> &text);
    void clearConversation(const QString &conversation);
    void clearPermission(const QString &request);

    // The text of a banner: code blocks as "(code)", links as their text, no markup
    // characters, at most 300 characters.
    static QString plain(const QString &text);

    static constexpr const char *permissionCategory = "ZUV_PERMISSION";

signals:
    // "Allow" or "Deny" on a permission banner.
    void answer(const QString &permission, bool allow);
    // A click on a banner: the window should show this conversation or session.
    void open(const std::optional<QString> &conversation, const std::optional<QString> &session);

private:
    void activated(const QString &identifier, const QString &action, const QVariantMap &userInfo);
    bool appActive() const { return m_screen.appActive && m_screen.appActive(); }

    Clock &m_clock;
    Defaults &m_defaults;
    NotificationCenter &m_center;
    Screen m_screen;
};

} // namespace zuv
