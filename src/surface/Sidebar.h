#pragma once

#include "hub/CcSession.h"
#include "hub/Conversation.h"
#include "settings/Overview.h"

#include <QString>

#include <optional>
#include <vector>

namespace zuv {

class ChatModel;

// How the main window's sidebar groups and filters what the account holds.
struct Sidebar {
    struct Scheduled {
        Overview::Schedule schedule;
        CcTarget target;
    };

    struct Sections {
        std::vector<CcSession> needsYou;
        std::vector<CcSession> working;
        std::vector<Scheduled> scheduled;
        std::vector<CcSession> rest;
        QString restTitle; // "Agents" when the three above are empty, else "Earlier"
    };

    static bool matches(const CcSession &session, const QString &query);
    static std::vector<Conversation> filtered(const std::vector<Conversation> &conversations, const QString &query);
    static std::vector<Scheduled> scheduledSessions(const std::optional<Overview> &overview, const QString &query);
    static Sections sections(const ChatModel &chat, const std::optional<Overview> &overview, const QString &query);
    // The name of another computer of the account, for labels; none for this one.
    static std::optional<QString> macName(const std::optional<QString> &device, const std::optional<QString> &thisMac,
                                          const std::optional<Me> &me);
    static bool working(const CcSession &session);
    // Whether a query is long enough to search the messages on the hub.
    static bool searchesMessages(const QString &query) { return query.trimmed().size() >= 2; }
};

} // namespace zuv
