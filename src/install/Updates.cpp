#include "install/Updates.h"

#include "base/Clock.h"
#include "base/Job.h"
#include "base/Json.h"
#include "hub/MacAPI.h"
#include "platform/Updater.h"

#include <QPointer>

namespace zuv {

namespace {

// The one key of "/app/me" read here.
struct Minimum {
    std::optional<QString> minMacBuild;
    static Minimum fromJson(const QJsonObject &o) { return {json::optional<QString>(o, QStringLiteral("minMacBuild"))}; }
};

} // namespace

Updates::Updates(Clock &clock, MacAPI &api, Updater &updater, std::function<bool()> busy, const QStringList &arguments,
                 QString build, QObject *parent)
    : QObject(parent), m_clock(clock), m_api(api), m_updater(updater), m_busy(std::move(busy)), m_build(std::move(build))
{
    if (arguments.contains(QStringLiteral("--update-now")))
        m_updater.checkInBackground();
}



std::optional<double> Updates::rank(const QString &text)
{
    if (text.isEmpty() || text.size() > 12)
        return std::nullopt;
    for (QChar c : text)
        if (c < QLatin1Char('0') || c > QLatin1Char('9'))
            return std::nullopt;
    bool ok = false;
    const double value = text.toDouble(&ok);
    if (!ok)
        return std::nullopt;
    return text.size() == 12 ? value / 1e12 : value + 1.0;
}

QCoro::Task<void> Updates::checkMinimum()
{
    QPointer<Updates> self(this);
    std::optional<QString> minimum;
    try {
        minimum = (co_await m_api.get<Minimum>(QStringLiteral("/app/me"))).minMacBuild;
    } catch (const std::exception &) {
        co_return; // an unreachable hub changes nothing
    }
    if (!self || !minimum)
        co_return;
    const auto want = rank(*minimum);
    const auto have = rank(m_build);
    if (!want || !have)
        co_return;
    const bool was = m_required;
    m_required = *have < *want;
    if (m_required != was)
        emit requiredChanged();
    if (m_required && !was) {
        emit activate();
        m_updater.checkForUpdates();
    }
}

void Updates::willInstallOnQuit(std::function<void()> install)
{
    m_pending = std::move(install);
    installWhenIdle();
}

void Updates::installWhenIdle()
{
    if (!m_pending)
        return;
    if (!m_pendingSince)
        m_pendingSince = m_clock.now();
    if (m_busy && m_busy() && m_clock.now() - *m_pendingSince <= longestWait) {
        if (!m_retry.isRunning()) // a replaced block joins the wait already under way
            m_retry = Job::start([this](CancelToken token) { return retryLater(std::move(token)); },
                                 QStringLiteral("Waiting to install the update"));
        return;
    }
    m_pendingSince.reset();
    auto install = std::exchange(m_pending, {});
    install();
}

QCoro::Task<void> Updates::retryLater(CancelToken token)
{
    QPointer<Updates> self(this);
    // A named result: GCC 12 miscompiles some co_await inside a condition.
    const bool waited = co_await m_clock.sleep(idleStep, token);
    if (!waited || !self || token.isCancelled())
        co_return;
    // Finished as far as the guard above is concerned: a still-busy look starts a new wait.
    m_retry = Job();
    installWhenIdle();
}

} // namespace zuv
