#include "platform/linux/PolkitPower.h"

#include <QCoreApplication>
#include <QDBusArgument>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusPendingCall>
#include <QFile>
#include <QPointer>
#include <QCoro/QCoroDBusPendingCall>

#include <unistd.h>

namespace {

// polkit's subject: a kind and its details, (sa{sv}) on the wire.
struct PolkitSubject {
    QString kind;
    QVariantMap details;
};

QDBusArgument &operator<<(QDBusArgument &argument, const PolkitSubject &subject)
{
    argument.beginStructure();
    argument << subject.kind << subject.details;
    argument.endStructure();
    return argument;
}

const QDBusArgument &operator>>(const QDBusArgument &argument, PolkitSubject &subject)
{
    argument.beginStructure();
    argument >> subject.kind >> subject.details;
    argument.endStructure();
    return argument;
}

} // namespace

Q_DECLARE_METATYPE(PolkitSubject)

namespace zuv {

namespace {

using StringMap = QMap<QString, QString>;

// Field 22 of /proc/self/stat: when this process started, which polkit checks.
quint64 startTime()
{
    QFile stat(QStringLiteral("/proc/self/stat"));
    if (!stat.open(QIODevice::ReadOnly))
        return 0;
    const QByteArray text = stat.readAll();
    // The command name may hold blanks and parentheses: count from the last ')'.
    const QList<QByteArray> fields = text.mid(text.lastIndexOf(')') + 2).split(' ');
    return fields.size() > 19 ? fields[19].toULongLong() : 0;
}

bool missing(const QDBusMessage &reply)
{
    const QString name = reply.errorName();
    return name == QLatin1String("org.freedesktop.DBus.Error.ServiceUnknown")
        || name == QLatin1String("org.freedesktop.DBus.Error.NameHasNoOwner")
        || name == QLatin1String("org.freedesktop.DBus.Error.NoServer")
        || name == QLatin1String("org.freedesktop.DBus.Error.Disconnected");
}

// This process as polkit's subject. Built outside the coroutine: GCC 12
// mishandles brace-initialised lists inside one.
PolkitSubject self()
{
    PolkitSubject subject;
    subject.kind = QStringLiteral("unix-process");
    subject.details.insert(QStringLiteral("pid"), QVariant::fromValue(quint32(::getpid())));
    subject.details.insert(QStringLiteral("start-time"), QVariant::fromValue(startTime()));
    subject.details.insert(QStringLiteral("uid"), QVariant::fromValue(qint32(::getuid())));
    return subject;
}

QDBusMessage checkCall(const QString &action, bool interactive)
{
    QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.PolicyKit1"), QStringLiteral("/org/freedesktop/PolicyKit1/Authority"),
        QStringLiteral("org.freedesktop.PolicyKit1.Authority"), QStringLiteral("CheckAuthorization"));
    call << QVariant::fromValue(self()) << action << QVariant::fromValue(StringMap()) << quint32(interactive ? 1 : 0)
         << QString();
    return call;
}

} // namespace

PolkitPower::PolkitPower(QDBusConnection bus, QObject *parent) : QObject(parent), m_bus(std::move(bus))
{
    qDBusRegisterMetaType<PolkitSubject>();
    qDBusRegisterMetaType<StringMap>();
}

QStringList PolkitPower::actions()
{
    return {QStringLiteral("org.freedesktop.login1.inhibit-block-sleep"),
            QStringLiteral("org.freedesktop.login1.inhibit-block-idle"),
            QStringLiteral("org.freedesktop.login1.inhibit-handle-lid-switch")};
}

QCoro::Task<PowerService::Status> PolkitPower::check(bool interactive)
{
    QPointer<PolkitPower> self(this);
    m_problem.clear();
    if (!m_bus.isConnected()) {
        m_problem = tr("there is no system bus");
        co_return Status::notFound;
    }
    // logind first: without it there is nobody to hold an inhibitor. Once it has
    // answered it is not asked again; polkit's answers are what change.
    if (!m_logindSeen) {
        QDBusMessage ping = QDBusMessage::createMethodCall(QStringLiteral("org.freedesktop.login1"),
                                                          QStringLiteral("/org/freedesktop/login1"),
                                                          QStringLiteral("org.freedesktop.DBus.Peer"), QStringLiteral("Ping"));
        QDBusPendingCall pinging = m_bus.asyncCall(ping, 10000);
        const QDBusMessage pong = co_await pinging;
        if (!self)
            co_return Status::notFound;
        if (pong.type() == QDBusMessage::ErrorMessage && missing(pong)) {
            m_problem = tr("logind isn't running on this system");
            co_return Status::notFound;
        }
        m_logindSeen = true;
    }

    bool all = true;
    bool asks = false;
    const QStringList wanted = actions();
    for (const QString &action : wanted) {
        const QDBusMessage call = checkCall(action, interactive);
        // Someone may be typing a password: an interactive check may take its time.
        QDBusPendingCall pending = m_bus.asyncCall(call, interactive ? 300000 : 10000);
        const QDBusMessage reply = co_await pending;
        if (!self)
            co_return Status::notFound;
        if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty()
            || !reply.arguments().at(0).canConvert<QDBusArgument>()) {
            if (reply.type() == QDBusMessage::ErrorMessage && missing(reply)) {
                m_problem = tr("polkit isn't running on this system");
                co_return Status::notFound;
            }
            m_problem = reply.type() == QDBusMessage::ErrorMessage ? reply.errorMessage() : tr("polkit gave no answer");
            co_return Status::notRegistered;
        }
        const QDBusArgument result = reply.arguments().at(0).value<QDBusArgument>();
        if (result.currentSignature() != QLatin1String("(bba{ss})")) {
            m_problem = tr("polkit gave an answer of the wrong shape");
            co_return Status::notRegistered;
        }
        bool authorized = false;
        bool challenge = false;
        StringMap details;
        result.beginStructure();
        result >> authorized >> challenge >> details;
        result.endStructure();
        all = all && authorized;
        asks = asks || (!authorized && challenge);
    }
    if (all)
        co_return Status::enabled;
    co_return asks ? Status::requiresApproval : Status::notRegistered;
}

} // namespace zuv
