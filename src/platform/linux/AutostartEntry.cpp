#include "platform/linux/AutostartEntry.h"

#include <QCoreApplication>
#include <QDesktopServices>
#include <QDir>
#include <QFile>
#include <QSaveFile>
#include <QStandardPaths>
#include <QUrl>

namespace zuv {

namespace {

constexpr auto fileName = "com.kelmor.zuv.mac.desktop";

// The value of `key` in the [Desktop Entry] group, or a null string.
QString entryValue(const QByteArray &text, const QByteArray &key)
{
    bool inEntry = false;
    for (const QByteArray &raw : text.split('\n')) {
        const QByteArray line = raw.trimmed();
        if (line.startsWith('[')) {
            inEntry = line == "[Desktop Entry]";
            continue;
        }
        if (!inEntry)
            continue;
        const qsizetype eq = line.indexOf('=');
        if (eq > 0 && line.left(eq).trimmed() == key)
            return QString::fromUtf8(line.mid(eq + 1).trimmed());
    }
    return {};
}

// Exec quoting of the desktop entry spec: reserved characters in double quotes.
QString quoted(const QString &path)
{
    static const QString reserved = QStringLiteral(" \t\n\"'\\><~|&;$*?#()`");
    bool plain = true;
    for (QChar c : path)
        plain = plain && !reserved.contains(c);
    if (plain)
        return path;
    QString out = QStringLiteral("\"");
    for (QChar c : path) {
        if (c == u'"' || c == u'`' || c == u'$' || c == u'\\')
            out += u'\\';
        out += c;
    }
    return out + u'"';
}

} // namespace

AutostartEntry::AutostartEntry(QString folder, QString executable)
    : m_folder(std::move(folder)), m_executable(std::move(executable))
{
}

QString AutostartEntry::defaultFolder()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) + QStringLiteral("/autostart");
}

QString AutostartEntry::file() const { return m_folder + u'/' + QLatin1String(fileName); }

LoginItems::Status AutostartEntry::status() const
{
    QFile f(file());
    if (!f.open(QIODevice::ReadOnly))
        return Status::notRegistered;
    const QByteArray text = f.read(64 * 1024);
    if (entryValue(text, "Hidden").compare(QStringLiteral("true"), Qt::CaseInsensitive) == 0
        || entryValue(text, "X-GNOME-Autostart-enabled").compare(QStringLiteral("false"), Qt::CaseInsensitive) == 0)
        return Status::notRegistered;
    return Status::enabled;
}

std::optional<QString> AutostartEntry::registerApp()
{
    if (!QDir().mkpath(m_folder))
        return QCoreApplication::translate("AutostartEntry", "Couldn't create the folder %1.").arg(m_folder);
    QSaveFile out(file());
    if (!out.open(QIODevice::WriteOnly))
        return out.errorString();
    const QString text = QStringLiteral("[Desktop Entry]\n"
                                        "Type=Application\n"
                                        "Name=Zuv\n"
                                        "Comment=Your AI agents and this computer, from your iPhone\n"
                                        "Exec=%1\n"
                                        "Icon=com.kelmor.zuv.mac\n"
                                        "Terminal=false\n"
                                        "X-GNOME-Autostart-enabled=true\n")
                             .arg(quoted(m_executable));
    out.write(text.toUtf8());
    if (!out.commit())
        return out.errorString();
    return std::nullopt;
}

std::optional<QString> AutostartEntry::unregisterApp()
{
    QFile f(file());
    if (!f.exists() || f.remove())
        return std::nullopt;
    return f.errorString();
}

void AutostartEntry::openSettings() { QDesktopServices::openUrl(QUrl::fromLocalFile(m_folder)); }

DesktopScreenAccess::DesktopScreenAccess(QString platform) : m_platform(std::move(platform)) {}

bool DesktopScreenAccess::x11() const { return m_platform == QLatin1String("xcb"); }
bool DesktopScreenAccess::screenRecording() const { return x11(); }
bool DesktopScreenAccess::accessibility() const { return x11(); }
bool DesktopScreenAccess::requestScreenRecording() { return x11(); }
bool DesktopScreenAccess::requestAccessibility() { return x11(); }

QString DesktopScreenAccess::reason() const
{
    if (x11())
        return QCoreApplication::translate("DesktopScreenAccess",
                                           "On X11 every application may see the screen and send keys, so nothing needs allowing.");
    return QCoreApplication::translate("DesktopScreenAccess",
                                       "On Wayland your desktop asks the first time Zuv shares the screen or sends keys: allow it there.");
}

} // namespace zuv
