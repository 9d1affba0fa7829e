#include "base/AppLog.h"

#include "base/Clock.h"
#include "base/Log.h"
#include "base/Paths.h"

#include <QDateTime>
#include <QFile>
#include <QSaveFile>

namespace zuv {

AppLog::AppLog(Clock &clock, QString folder) : m_clock(clock), m_folder(std::move(folder)) {}

QString AppLog::file() const { return m_folder + QStringLiteral("/app.log"); }

void AppLog::write(const QString &line) const
{
    const auto time = QDateTime::fromMSecsSinceEpoch(qint64(m_clock.now() * 1000), Qt::UTC);
    const QByteArray text = (time.toString(Qt::ISODate) + QLatin1Char(' ') + line + QLatin1Char('\n')).toUtf8();
    QFile out(file());
    if (out.open(QIODevice::WriteOnly | QIODevice::Append)) {
        out.write(text);
        return;
    }
    // The first line ever, or a folder removed meanwhile.
    Paths::ensure(m_folder);
    QSaveFile fresh(file());
    if (fresh.open(QIODevice::WriteOnly)) {
        fresh.write(text);
        fresh.commit();
    }
}

void AppLog::install() const
{
    const AppLog *self = this;
    setLogSink([self](const QString &line) { self->write(line); });
}

} // namespace zuv
