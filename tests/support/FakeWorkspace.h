#pragma once

#include "platform/Workspace.h"

#include <QStringList>

#include <map>
#include <set>

namespace zuv::test {

// Two applications, with what is in front and running set by the test, and the
// calls it received in order.
class FakeWorkspace final : public Workspace {
public:
    std::vector<App> apps{{"org.example.Editor.desktop", "Editor", "/apps/org.example.Editor.desktop", ""},
                          {"org.example.Files.desktop", "Files", "/apps/org.example.Files.desktop", ""}};
    std::optional<QString> front;
    std::set<QString> running;
    std::map<qint64, QString> processes; // pid to desktop id
    QStringList calls;
    QString launchError;

    std::optional<App> application(const QString &id) const override
    {
        for (const App &a : apps)
            if (a.id == id)
                return a;
        return std::nullopt;
    }
    std::optional<App> applicationAt(const QString &path) const override
    {
        for (const App &a : apps)
            if (a.path == path)
                return a;
        return std::nullopt;
    }
    std::vector<App> installed() const override { return apps; }
    std::optional<QString> frontmost() const override { return front; }
    std::optional<quint32> active;
    std::map<quint32, QRect> frames;
    std::optional<quint32> activeWindow() const override { return active; }
    bool activateWindow(quint32 window, quint32 time) override
    {
        calls << QStringLiteral("activate window %1 %2").arg(window).arg(time);
        active = window;
        return true;
    }
    void showFiles(const QStringList &paths) override { calls << "show " + paths.join(' '); }
    void keepOutOfTaskbar(quint32 window) override { calls << QStringLiteral("keep out of taskbar %1").arg(window); }
    std::optional<QRect> windowFrame(quint32 window) const override
    {
        const auto it = frames.find(window);
        return it == frames.end() ? std::nullopt : std::optional<QRect>(it->second);
    }
    std::optional<QString> applicationOfProcess(qint64 pid) const override
    {
        const auto it = processes.find(pid);
        return it == processes.end() ? std::nullopt : std::optional<QString>(it->second);
    }
    bool activate(const QString &id, quint32 time) override
    {
        calls << QStringLiteral("activate %1 %2").arg(id).arg(time);
        return running.count(id) != 0;
    }
    bool hide(const QString &id) override
    {
        calls << "hide " + id;
        return true;
    }
    QString launch(const App &app, quint32 time) override
    {
        calls << QStringLiteral("launch %1 %2").arg(app.id).arg(time);
        return launchError;
    }
};

} // namespace zuv::test
