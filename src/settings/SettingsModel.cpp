#include "settings/SettingsModel.h"

#include "base/Error.h"
#include "hub/MacAPI.h"
#include "settings/Models.h"

#include <QPointer>

namespace zuv {

SettingsModel::SettingsModel(MacAPI &api, Models &models, QObject *parent)
    : QObject(parent), m_api(api), m_models(models)
{
}


void SettingsModel::setError(const std::optional<QString> &error)
{
    if (m_error == error)
        return;
    m_error = error;
    emit changed();
}

void SettingsModel::setOverview(std::optional<Overview> overview)
{
    m_overview = std::move(overview);
    m_models.update(m_overview ? m_overview->status.models : std::nullopt);
    emit changed();
}

QCoro::Task<void> SettingsModel::load()
{
    QPointer<SettingsModel> self(this);
    try {
        auto overview = co_await m_api.get<std::optional<Overview>>(QStringLiteral("/app/overview"));
        if (!self)
            co_return;
        setOverview(std::move(overview));
        auto me = co_await m_api.get<Me>(QStringLiteral("/app/me"));
        if (!self)
            co_return;
        m_me = std::move(me);
        m_failed = false;
        emit changed();
    } catch (const std::exception &e) {
        if (!self)
            co_return;
        m_failed = true;
        m_error = describe(e);
        emit changed();
    }
}

QCoro::Task<void> SettingsModel::refreshOverview()
{
    QPointer<SettingsModel> self(this);
    try {
        auto overview = co_await m_api.get<std::optional<Overview>>(QStringLiteral("/app/overview"));
        if (self && overview)
            setOverview(std::move(overview));
    } catch (const std::exception &) {
        // A background refresh stays silent.
    }
}

QCoro::Task<void> SettingsModel::call(QString path, QString method, std::optional<QJsonValue> body)
{
    QPointer<SettingsModel> self(this);
    try {
        // MacAPI::call forgets a stale access token and repeats the request once.
        co_await m_api.call<MacAPI::Ignored>(path, method, body);
    } catch (const std::exception &e) {
        if (self)
            setError(describe(e));
    }
    if (!self)
        co_return;
    co_await load();
}

QCoro::Task<void> SettingsModel::saveSchedule(std::optional<QString> id, ScheduleEdit edit)
{
    const QJsonValue body = edit.toJson();
    if (id)
        co_await call(QStringLiteral("/app/schedules/") + *id, QStringLiteral("PATCH"), body);
    else
        co_await call(QStringLiteral("/app/schedules"), QStringLiteral("POST"), body);
}

QCoro::Task<void> SettingsModel::deleteSchedule(QString id)
{
    co_await call(QStringLiteral("/app/schedules/") + id, QStringLiteral("DELETE"), std::nullopt);
}

QCoro::Task<void> SettingsModel::saveMemory(std::optional<QString> id, QString text, QString kind)
{
    QJsonObject body;
    body.insert(QStringLiteral("text"), text);
    body.insert(QStringLiteral("kind"), kind);
    if (id)
        co_await call(QStringLiteral("/app/memory/") + *id, QStringLiteral("PATCH"), body);
    else
        co_await call(QStringLiteral("/app/memory"), QStringLiteral("POST"), body);
}

QCoro::Task<void> SettingsModel::deleteMemory(QString id)
{
    co_await call(QStringLiteral("/app/memory/") + id, QStringLiteral("DELETE"), std::nullopt);
}

QCoro::Task<void> SettingsModel::setLearning(bool on)
{
    QJsonObject body;
    body.insert(QStringLiteral("review"), on);
    co_await call(QStringLiteral("/app/memory-settings"), QStringLiteral("PUT"), body);
}

QCoro::Task<void> SettingsModel::setMemoryEnabled(bool on)
{
    QJsonObject body;
    body.insert(QStringLiteral("enabled"), on);
    co_await call(QStringLiteral("/app/memory-settings"), QStringLiteral("PUT"), body);
}

QCoro::Task<void> SettingsModel::setModel(QString model, QString effort)
{
    QJsonObject body;
    body.insert(QStringLiteral("model"), model);
    body.insert(QStringLiteral("effort"), effort);
    co_await call(QStringLiteral("/app/settings"), QStringLiteral("PUT"), body);
}

QCoro::Task<void> SettingsModel::connectTelegram(QString token)
{
    QJsonObject body;
    body.insert(QStringLiteral("token"), token);
    co_await call(QStringLiteral("/app/telegram"), QStringLiteral("PUT"), body);
}

QCoro::Task<void> SettingsModel::disconnectTelegram()
{
    co_await call(QStringLiteral("/app/telegram"), QStringLiteral("DELETE"), std::nullopt);
}

QCoro::Task<bool> SettingsModel::deleteAccount()
{
    QPointer<SettingsModel> self(this);
    try {
        co_await m_api.call<MacAPI::Ignored>(QStringLiteral("/app/account"), QStringLiteral("DELETE"));
        co_return true;
    } catch (const std::exception &e) {
        if (self)
            setError(describe(e));
    }
    co_return false;
}

} // namespace zuv
