#pragma once

#include "base/Shared.h"

#include "settings/Overview.h"
#include "settings/Schedule.h"

#include <QJsonValue>
#include <QObject>
#include <QCoro/QCoroTask>

#include <optional>

namespace zuv {

class MacAPI;
class Models;

// What the hub says about the account, behind the settings window, the sidebar's
// schedules and the new-session sheet. Every change goes through `call`, which
// reloads the whole picture afterwards: changes never patch local state.
class SettingsModel : public QObject, public Shared<SettingsModel> {
    Q_OBJECT
public:
    SettingsModel(MacAPI &api, Models &models, QObject *parent = nullptr);


    const std::optional<Overview> &overview() const { return m_overview; }
    const std::optional<Me> &me() const { return m_me; }
    // The last failed request or load, until the next failure or a dismissal.
    const std::optional<QString> &error() const { return m_error; }
    bool failed() const { return m_failed; }
    void setError(const std::optional<QString> &error);

    QCoro::Task<void> load();
    // Overview only, and silent: a failure changes nothing.
    QCoro::Task<void> refreshOverview();

    QCoro::Task<void> saveSchedule(std::optional<QString> id, ScheduleEdit edit);
    QCoro::Task<void> deleteSchedule(QString id);
    QCoro::Task<void> saveMemory(std::optional<QString> id, QString text, QString kind);
    QCoro::Task<void> deleteMemory(QString id);
    QCoro::Task<void> setLearning(bool on);
    QCoro::Task<void> setMemoryEnabled(bool on);
    QCoro::Task<void> setModel(QString model, QString effort);
    QCoro::Task<void> connectTelegram(QString token);
    QCoro::Task<void> disconnectTelegram();
    // True when the hub deleted the account; no reload follows.
    QCoro::Task<bool> deleteAccount();

signals:
    void changed();

private:
    // Stores what the hub said and hands its model catalogue on.
    void setOverview(std::optional<Overview> overview);
    QCoro::Task<void> call(QString path, QString method, std::optional<QJsonValue> body);

    MacAPI &m_api;
    Models &m_models;
    std::optional<Overview> m_overview;
    std::optional<Me> m_me;
    std::optional<QString> m_error;
    bool m_failed = false;
};

} // namespace zuv
