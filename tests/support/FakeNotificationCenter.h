#pragma once

#include "platform/NotificationCenter.h"

#include <map>
#include <vector>

namespace zuv::test {

// Keeps what was raised, in order, and what is still delivered.
class FakeNotificationCenter final : public NotificationCenter {
public:
    std::vector<Request> added;
    std::map<QString, Request> shown;
    std::vector<QStringList> removals;

    void add(const Request &request) override
    {
        added.push_back(request);
        shown[request.identifier] = request;
    }
    void remove(const QStringList &identifiers) override
    {
        removals.push_back(identifiers);
        for (const QString &identifier : identifiers)
            shown.erase(identifier);
    }
    QStringList delivered(const QString &thread) const override
    {
        QStringList out;
        for (const auto &[identifier, request] : shown)
            if (request.thread == thread)
                out << identifier;
        return out;
    }
    void press(const QString &identifier, const QString &action)
    {
        emit activated(identifier, action, shown.at(identifier).userInfo);
    }
};

} // namespace zuv::test
