#include "platform/linux/LinuxCrashSource.h"

#include "base/Log.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSaveFile>
#include <QSettings>
#include <QSysInfo>
#include <QUuid>

#include <elfutils/libdwfl.h>

#include <csignal>
#include <cxxabi.h>
#include <map>
#include <memory>

namespace zuv {

namespace {

struct Mapping {
    quint64 start = 0;
    quint64 end = 0;
    quint64 offset = 0;
    QString path;
};

struct Record {
    QString name;
    QString exe;
    QString version;
    QString build;
    int signal = 0;
    int code = 0;
    QString address;
    double time = 0;
    std::vector<std::pair<quint64, bool>> frames; // address, is the faulting instruction
    std::vector<Mapping> maps;
};

std::optional<Record> parse(const QByteArray &data)
{
    const QList<QByteArray> lines = data.split('\n');
    if (lines.isEmpty() || !lines.front().startsWith("zuv-crash "))
        return std::nullopt;
    Record r;
    bool inMaps = false;
    for (const QByteArray &raw : lines) {
        const QString line = QString::fromUtf8(raw);
        if (inMaps) {
            // start-end perms offset dev inode path
            const QStringList f = line.simplified().split(QLatin1Char(' '));
            if (f.size() < 6 || !f[5].startsWith(QLatin1Char('/')))
                continue;
            const QStringList range = f[0].split(QLatin1Char('-'));
            if (range.size() != 2)
                continue;
            Mapping m;
            m.start = range[0].toULongLong(nullptr, 16);
            m.end = range[1].toULongLong(nullptr, 16);
            m.offset = f[2].toULongLong(nullptr, 16);
            m.path = line.mid(line.indexOf(f[5]));
            r.maps.push_back(m);
            continue;
        }
        const qsizetype blank = line.indexOf(QLatin1Char(' '));
        const QString key = blank < 0 ? line : line.left(blank);
        const QString value = blank < 0 ? QString() : line.mid(blank + 1);
        if (key == QLatin1String("maps")) inMaps = true;
        else if (key == QLatin1String("name")) r.name = value;
        else if (key == QLatin1String("exe")) r.exe = value;
        else if (key == QLatin1String("version")) r.version = value;
        else if (key == QLatin1String("build")) r.build = value;
        else if (key == QLatin1String("signal")) r.signal = value.toInt();
        else if (key == QLatin1String("code")) r.code = value.toInt();
        else if (key == QLatin1String("address")) r.address = value;
        else if (key == QLatin1String("time")) r.time = value.toDouble();
        else if (key == QLatin1String("pc")) r.frames.push_back({value.toULongLong(nullptr, 16), true});
        else if (key == QLatin1String("ret")) r.frames.push_back({value.toULongLong(nullptr, 16), false});
    }
    if (r.signal == 0 || r.name.isEmpty())
        return std::nullopt;
    return r;
}

QString signalText(int signal)
{
    switch (signal) {
    case SIGSEGV: return QStringLiteral("Segmentation fault");
    case SIGBUS: return QStringLiteral("Bus error");
    case SIGILL: return QStringLiteral("Illegal instruction");
    case SIGFPE: return QStringLiteral("Floating-point exception");
    case SIGABRT: return QStringLiteral("Aborted");
    default: return QStringLiteral("Signal %1").arg(signal);
    }
}

QString signalName(int signal)
{
    switch (signal) {
    case SIGSEGV: return QStringLiteral("SIGSEGV");
    case SIGBUS: return QStringLiteral("SIGBUS");
    case SIGILL: return QStringLiteral("SIGILL");
    case SIGFPE: return QStringLiteral("SIGFPE");
    case SIGABRT: return QStringLiteral("SIGABRT");
    default: return QStringLiteral("SIG%1").arg(signal);
    }
}

QString demangled(const char *symbol)
{
    int status = 0;
    std::unique_ptr<char, decltype(&std::free)> name(abi::__cxa_demangle(symbol, nullptr, nullptr, &status), &std::free);
    return QString::fromUtf8(status == 0 && name ? name.get() : symbol);
}

QString osTrain()
{
    QSettings release(QStringLiteral("/etc/os-release"), QSettings::IniFormat);
    const QString pretty = release.value(QStringLiteral("PRETTY_NAME")).toString();
    return pretty.isEmpty() ? QSysInfo::prettyProductName() : pretty;
}

// Symbols and lines for the addresses of one process, from the binaries as they lay in memory.
class Symbolizer {
public:
    explicit Symbolizer(const std::vector<Mapping> &maps)
    {
        static char *debugPath = nullptr;
        static const Dwfl_Callbacks callbacks = {dwfl_build_id_find_elf, dwfl_standard_find_debuginfo,
                                                 dwfl_offline_section_address, &debugPath};
        m_dwfl = dwfl_begin(&callbacks);
        if (!m_dwfl)
            return;
        dwfl_report_begin(m_dwfl);
        std::map<QString, quint64> bases;
        for (const auto &m : maps)
            if (m.offset == 0 && !bases.count(m.path))
                bases[m.path] = m.start;
        for (const auto &[path, base] : bases) {
            const QByteArray file = path.toLocal8Bit();
            if (QFileInfo(path).isFile())
                dwfl_report_elf(m_dwfl, file.constData(), file.constData(), -1, base, false);
        }
        dwfl_report_end(m_dwfl, nullptr, nullptr);
    }
    ~Symbolizer()
    {
        if (m_dwfl)
            dwfl_end(m_dwfl);
    }

    // Fills "symbol", "symbolLocation", "sourceFile", "sourceLine" of a frame.
    void describe(quint64 address, bool exact, QJsonObject &frame) const
    {
        if (!m_dwfl)
            return;
        // A return address points after the call; look up the call itself.
        const Dwarf_Addr lookup = exact ? address : address - 1;
        Dwfl_Module *module = dwfl_addrmodule(m_dwfl, lookup);
        if (!module)
            return;
        GElf_Off offset = 0;
        GElf_Sym symbol{};
        if (const char *name = dwfl_module_addrinfo(module, lookup, &offset, &symbol, nullptr, nullptr, nullptr)) {
            frame.insert(QStringLiteral("symbol"), demangled(name));
            frame.insert(QStringLiteral("symbolLocation"), qint64(address - (lookup - offset)));
        }
        if (Dwfl_Line *line = dwfl_module_getsrc(module, lookup)) {
            int number = 0;
            if (const char *file = dwfl_lineinfo(line, nullptr, &number, nullptr, nullptr, nullptr)) {
                frame.insert(QStringLiteral("sourceFile"), QFileInfo(QString::fromUtf8(file)).fileName());
                frame.insert(QStringLiteral("sourceLine"), number);
            }
        }
    }

    QString buildId(quint64 address) const
    {
        if (!m_dwfl)
            return {};
        Dwfl_Module *module = dwfl_addrmodule(m_dwfl, address);
        const unsigned char *bits = nullptr;
        GElf_Addr vaddr = 0;
        const int length = module ? dwfl_module_build_id(module, &bits, &vaddr) : -1;
        return length > 0 ? QString::fromLatin1(QByteArray(reinterpret_cast<const char *>(bits), length).toHex()) : QString();
    }

private:
    Dwfl *m_dwfl = nullptr;
};

} // namespace

QByteArray LinuxCrashSource::report(const QByteArray &data)
{
    const auto record = parse(data);
    if (!record)
        return {};
    const Symbolizer symbols(record->maps);

    // The images: the executable first, then every library a frame lies in.
    QJsonArray images;
    std::map<QString, int> imageIndex;
    std::map<QString, quint64> bases;
    for (const auto &m : record->maps)
        if (m.offset == 0 && !bases.count(m.path))
            bases[m.path] = m.start;
    auto imageOf = [&](const QString &path) {
        auto found = imageIndex.find(path);
        if (found != imageIndex.end())
            return found->second;
        const quint64 base = bases.count(path) ? bases[path] : 0;
        images.append(QJsonObject{{QStringLiteral("name"), QFileInfo(path).fileName()},
                                  {QStringLiteral("path"), path},
                                  {QStringLiteral("base"), qint64(base)},
                                  {QStringLiteral("uuid"), symbols.buildId(base)}});
        imageIndex[path] = int(images.size()) - 1;
        return int(images.size()) - 1;
    };
    imageOf(record->exe);

    QJsonArray frames;
    for (const auto &[address, exact] : record->frames) {
        QJsonObject frame;
        for (const auto &m : record->maps) {
            if (address >= m.start && address < m.end) {
                frame.insert(QStringLiteral("imageIndex"), imageOf(m.path));
                frame.insert(QStringLiteral("imageOffset"), qint64(address - (bases.count(m.path) ? bases[m.path] : m.start)));
                break;
            }
        }
        symbols.describe(address, exact, frame);
        frames.append(frame);
    }

    const QString when = QDateTime::fromMSecsSinceEpoch(qint64(record->time * 1000), Qt::UTC).toString(Qt::ISODateWithMs);
    const QString incident = QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper();
    const QJsonObject header{{QStringLiteral("bug_type"), QStringLiteral("309")},
                             {QStringLiteral("app_name"), record->name},
                             {QStringLiteral("app_version"), record->version},
                             {QStringLiteral("build_version"), record->build},
                             {QStringLiteral("timestamp"), when},
                             {QStringLiteral("os_version"), osTrain()},
                             {QStringLiteral("incident_id"), incident},
                             {QStringLiteral("name"), record->name}};
    const QJsonObject body{
        {QStringLiteral("procPath"), record->exe},
        {QStringLiteral("procName"), record->name},
        {QStringLiteral("incident_id"), incident},
        {QStringLiteral("timestamp"), when},
        {QStringLiteral("modelCode"), QSysInfo::currentCpuArchitecture()},
        {QStringLiteral("osVersion"),
         QJsonObject{{QStringLiteral("train"), osTrain()}, {QStringLiteral("build"), QSysInfo::kernelVersion()}}},
        {QStringLiteral("bundleInfo"), QJsonObject{{QStringLiteral("CFBundleShortVersionString"), record->version},
                                                   {QStringLiteral("CFBundleVersion"), record->build}}},
        {QStringLiteral("exception"),
         QJsonObject{{QStringLiteral("type"), signalText(record->signal)},
                     {QStringLiteral("signal"), signalName(record->signal)},
                     {QStringLiteral("subtype"), QStringLiteral("code %1 at %2").arg(record->code).arg(record->address)}}},
        {QStringLiteral("faultingThread"), 0},
        {QStringLiteral("threads"), QJsonArray{QJsonObject{{QStringLiteral("triggered"), true}, {QStringLiteral("frames"), frames}}}},
        {QStringLiteral("usedImages"), images}};
    return QJsonDocument(header).toJson(QJsonDocument::Compact) + '\n' + QJsonDocument(body).toJson(QJsonDocument::Compact);
}

int LinuxCrashSource::collect(const QString &folder)
{
    int written = 0;
    const QDir dir(folder);
    for (const QFileInfo &file : dir.entryInfoList({QStringLiteral("*.crashrec")}, QDir::Files, QDir::Time | QDir::Reversed)) {
        QFile in(file.absoluteFilePath());
        if (!in.open(QIODevice::ReadOnly))
            continue;
        const QByteArray data = in.readAll();
        in.close();
        const QByteArray converted = report(data);
        if (converted.isEmpty()) {
            // Keep what cannot be read, out of the way of the next scan.
            QFile::rename(file.absoluteFilePath(), file.absoluteFilePath() + QStringLiteral(".unreadable"));
            log(QStringLiteral("A crash record could not be read: ") + file.fileName());
            continue;
        }
        // "<name>-<pid>-<seconds>.crashrec" becomes "<name>-<pid>-<seconds>.ips".
        QSaveFile out(dir.filePath(file.completeBaseName() + QStringLiteral(".ips")));
        if (out.open(QIODevice::WriteOnly) && out.write(converted) == converted.size() && out.commit()) {
            QFile::remove(file.absoluteFilePath());
            ++written;
        }
    }
    return written;
}

} // namespace zuv
