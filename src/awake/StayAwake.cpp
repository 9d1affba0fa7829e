#include "awake/StayAwake.h"

#include "base/Clock.h"
#include "base/Log.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QPointer>
#include <QSaveFile>

#include <cmath>

namespace zuv {

namespace {

// The latest moment a date can hold; an end beyond it is no end the app can show.
constexpr double latestEnd = 8.64e15;

std::optional<double> endOf(const StayAwake::Session &session)
{
    if (!session.active || !session.endsAt || !(*session.endsAt > 0) || *session.endsAt > latestEnd)
        return std::nullopt;
    return session.endsAt;
}

} // namespace

std::optional<StayAwake::Session> StayAwake::Session::fromJson(const QJsonObject &object)
{
    const QJsonValue active = object.value(QStringLiteral("active"));
    if (!active.isBool())
        return std::nullopt;
    Session s;
    s.active = active.toBool();
    if (const QJsonValue v = object.value(QStringLiteral("endsAt")); v.isDouble())
        s.endsAt = v.toDouble();
    if (const QJsonValue v = object.value(QStringLiteral("display")); v.isBool())
        s.display = v.toBool();
    if (const QJsonValue v = object.value(QStringLiteral("lid")); v.isString())
        s.lid = v.toString();
    if (const QJsonValue v = object.value(QStringLiteral("error")); v.isString())
        s.error = v.toString().left(500);
    return s;
}

StayAwake::StayAwake(Clock &clock, PowerService &power, QString statusFile, std::function<bool(const QString &)> send,
                     QObject *parent)
    : QObject(parent), m_clock(clock), m_power(power), m_statusFile(std::move(statusFile)), m_send(std::move(send))
{
}

StayAwake::~StayAwake() = default;

std::vector<StayAwake::Offer> StayAwake::durations()
{
    return {{30, tr("For 30 Minutes")}, {60, tr("For 1 Hour")},   {120, tr("For 2 Hours")},  {180, tr("For 3 Hours")},
            {300, tr("For 5 Hours")},   {480, tr("For 8 Hours")}, {720, tr("For 12 Hours")}};
}

std::vector<StayAwake::Offer> StayAwake::extensions()
{
    return {{30, tr("30 More Minutes")}, {60, tr("1 More Hour")},    {120, tr("2 More Hours")},  {180, tr("3 More Hours")},
            {300, tr("5 More Hours")},   {480, tr("8 More Hours")}, {720, tr("12 More Hours")}, {1440, tr("24 More Hours")}};
}

QString StayAwake::word(Status status)
{
    switch (status) {
    case Status::notRegistered:
        return QStringLiteral("notRegistered");
    case Status::enabled:
        return QStringLiteral("enabled");
    case Status::requiresApproval:
        return QStringLiteral("requiresApproval");
    case Status::notFound:
        return QStringLiteral("notFound");
    }
    return QStringLiteral("unknown");
}

QString StayAwake::keepAwakeLine(int minutes)
{
    return QStringLiteral("{\"power\":\"keepAwake\",\"minutes\":") + QString::number(std::max(0, minutes))
        + QStringLiteral(",\"display\":true}");
}

QString StayAwake::notRunningText() { return tr("Zuv isn't running on this computer right now."); }

void StayAwake::refresh()
{
    if (m_check.isRunning())
        return; // the look under way answers for this tick too
    m_check = Job::start([this](CancelToken token) { return check(std::move(token)); },
                         QStringLiteral("Checking the stay-awake permission"));
}

QCoro::Task<void> StayAwake::check(CancelToken token)
{
    QPointer<StayAwake> self(this);
    const Status status = co_await m_power.check(false);
    if (!self || token.isCancelled())
        co_return;
    setHelper(status);
    if (m_written != status)
        writeStatus(status);
}

bool StayAwake::writeStatus(Status status)
{
    // Quietly: a failure leaves `written` as it was, and the next look tries again.
    if (!QDir().mkpath(QFileInfo(m_statusFile).absolutePath()))
        return false;
    QSaveFile file(m_statusFile);
    if (!file.open(QIODevice::WriteOnly))
        return false;
    file.write((QStringLiteral("{\"status\":\"") + word(status) + QStringLiteral("\"}")).toUtf8());
    if (!file.commit())
        return false;
    m_written = status;
    return true;
}

void StayAwake::send(const QString &line)
{
    if (!m_send || !m_send(line))
        setLastError(notRunningText());
}

void StayAwake::askAgent() { send(QStringLiteral("{\"power\":\"status\"}")); }
void StayAwake::keepAwake(int minutes) { send(keepAwakeLine(minutes)); }
void StayAwake::allowSleep() { send(QStringLiteral("{\"power\":\"allowSleep\"}")); }

void StayAwake::startAllowingLidClosed()
{
    m_allow = Job::start([this](CancelToken) { return allowLidClosed(); }, QStringLiteral("Allowing closed-lid use"));
}

QCoro::Task<void> StayAwake::allowLidClosed()
{
    QPointer<StayAwake> self(this);
    setLastError(std::nullopt);
    const Status status = co_await m_power.check(true);
    if (!self)
        co_return;
    setHelper(status);
    if (m_written != status)
        writeStatus(status);
    switch (status) {
    case Status::enabled:
        log(QStringLiteral("zuv-awake: this session may keep the computer awake with the lid closed"));
        break;
    case Status::requiresApproval:
        log(QStringLiteral("zuv-awake: waiting for the desktop's approval"));
        break;
    default: {
        const QString cause = m_power.problem().isEmpty() ? word(status) : m_power.problem();
        setLastError(tr("Couldn't set up the helper: %1").arg(cause));
        log(QStringLiteral("zuv-awake register failed: status ") + QString::number(int(status)));
        break;
    }
    }
}

void StayAwake::setHelper(Status status)
{
    if (status == m_helper)
        return;
    m_helper = status;
    emit changed();
}

void StayAwake::setLastError(const std::optional<QString> &error)
{
    if (error == m_lastError)
        return;
    m_lastError = error;
    emit changed();
}

void StayAwake::setSession(const Session &session)
{
    if (session == m_session)
        return;
    m_session = session;
    emit changed();
}

void StayAwake::handleLine(const QJsonObject &payload)
{
    const auto session = Session::fromJson(payload);
    if (!session)
        return; // a broken line leaves what we knew
    setSession(*session);
    setLastError(session->error);
}

std::optional<int> StayAwake::minutesLeft() const
{
    const auto end = endOf(m_session);
    if (!end)
        return std::nullopt;
    const double minutes = (*end / 1000 - m_clock.now()) / 60;
    return int(std::clamp(std::trunc(minutes), 0.0, 1e9));
}

std::optional<QString> StayAwake::summary(const QDateTime &at, const QLocale &locale) const
{
    if (!m_session.active)
        return std::nullopt;
    const auto end = endOf(m_session);
    if (!end)
        return tr("Staying awake until you stop it");
    const QDateTime moment = QDateTime::fromMSecsSinceEpoch(qint64(*end)).toLocalTime();
    const double left = (*end - double(at.toMSecsSinceEpoch())) / 1000;
    QString format = locale.timeFormat(QLocale::ShortFormat);
    format.remove(QStringLiteral(":ss"));
    const QString time = left < 86400 ? locale.toString(moment.time(), format)
                                      : locale.toString(moment, QStringLiteral("ddd h:mm AP"));
    const qint64 seconds = qint64(std::round(std::max(left, 0.0)));
    const QString duration = QStringLiteral("%1:%2:%3")
                                 .arg(seconds / 3600)
                                 .arg((seconds / 60) % 60, 2, 10, QLatin1Char('0'))
                                 .arg(seconds % 60, 2, 10, QLatin1Char('0'));
    return tr("Staying awake until %1 · %2 left").arg(time, duration);
}

} // namespace zuv
