#include "diagnostics/CrashLog.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QDateTime>
#include <QJsonObject>
#include <QStringDecoder>
#include <QStringList>
#include <QUuid>

namespace zuv {

namespace {

std::optional<QJsonObject> object(const QByteArray &bytes)
{
    QJsonParseError error{};
    const auto document = QJsonDocument::fromJson(bytes, &error);
    if (error.error != QJsonParseError::NoError || !document.isObject())
        return std::nullopt;
    return document.object();
}

QString str(const QJsonObject &o, const char *key) { return o.value(QLatin1String(key)).toString(); }
std::optional<QString> optStr(const QJsonObject &o, const char *key)
{
    const QJsonValue v = o.value(QLatin1String(key));
    return v.isString() ? std::optional<QString>(v.toString()) : std::nullopt;
}
QJsonObject obj(const QJsonObject &o, const char *key) { return o.value(QLatin1String(key)).toObject(); }
QJsonArray arr(const QJsonObject &o, const char *key) { return o.value(QLatin1String(key)).toArray(); }

QString joinPresent(const QStringList &parts, const QString &separator)
{
    QStringList kept;
    for (const QString &p : parts)
        if (!p.isEmpty())
            kept << p;
    return kept.join(separator);
}

// The frame's image name as a 28-column field.
QString imageName(const QJsonObject &frame, const QJsonArray &images)
{
    QString name = QStringLiteral("???");
    const QJsonValue index = frame.value(QLatin1String("imageIndex"));
    if (index.isDouble()) {
        const int i = index.toInt(-1);
        if (i >= 0 && i < images.size()) {
            const QJsonValue n = images.at(i).toObject().value(QLatin1String("name"));
            if (n.isString())
                name = n.toString();
        }
    }
    return name.size() >= 28 ? name + QLatin1Char(' ') : name.leftJustified(28, QLatin1Char(' '));
}

QString frameLine(int position, const QJsonObject &frame, const QJsonArray &images)
{
    QString line = QString::asprintf("%3d  ", position) + imageName(frame, images);
    if (const auto symbol = optStr(frame, "symbol")) {
        line += *symbol;
        const QJsonValue location = frame.value(QLatin1String("symbolLocation"));
        if (!location.isUndefined() && !location.isNull())
            line += QStringLiteral(" + ") + QString::number(location.toInteger());
    } else {
        line += QString::asprintf("+0x%llx", static_cast<unsigned long long>(frame.value(QLatin1String("imageOffset")).toInteger()));
    }
    if (const auto file = optStr(frame, "sourceFile")) {
        line += QStringLiteral(" (") + *file;
        const QJsonValue sourceLine = frame.value(QLatin1String("sourceLine"));
        if (!sourceLine.isUndefined() && !sourceLine.isNull())
            line += QLatin1Char(':') + QString::number(sourceLine.toInteger());
        line += QLatin1Char(')');
    }
    return line;
}

// Deep stacks keep both ends: 50 frames, a count of what is left out, 30 frames.
QStringList stackLines(const QJsonArray &frames, const QJsonArray &images)
{
    QStringList lines;
    const qsizetype n = frames.size();
    auto add = [&](qsizetype i) { lines << frameLine(int(i), frames.at(i).toObject(), images); };
    if (n <= 80) {
        for (qsizetype i = 0; i < n; ++i)
            add(i);
        return lines;
    }
    for (qsizetype i = 0; i < 50; ++i)
        add(i);
    lines << QStringLiteral("     … ") + QString::number(n - 80) + QStringLiteral(" more frames …");
    for (qsizetype i = n - 30; i < n; ++i)
        add(i);
    return lines;
}

} // namespace

std::optional<CrashLog> CrashLog::make(const QByteArray &data, const std::function<bool(const QString &)> &ours,
                                       const QString &home)
{
    const qsizetype newline = data.indexOf('\n');
    if (newline < 0)
        return std::nullopt;
    const QByteArray headerBytes = data.left(newline);
    const auto header = object(headerBytes);
    if (!header || str(*header, "bug_type") != QLatin1String("309"))
        return std::nullopt;
    const QByteArray reportBytes = data.mid(newline + 1);
    const auto report = object(reportBytes);
    if (!report)
        return std::nullopt;
    const auto procPath = optStr(*report, "procPath");
    if (!procPath || !ours(*procPath))
        return std::nullopt;

    const QJsonObject bundleInfo = obj(*report, "bundleInfo");
    const QString stamp = optStr(*report, "timestamp").value_or(str(*header, "timestamp"));
    const QJsonObject osVersion = obj(*report, "osVersion");
    CrashLog log;
    log.incident = optStr(*report, "incident_id")
                       .value_or(optStr(*report, "incident").value_or(QUuid::createUuid().toString(QUuid::WithoutBraces)));
    log.process = optStr(*report, "procName").value_or(optStr(*header, "app_name").value_or(procPath->section(QLatin1Char('/'), -1)));
    if (const QDateTime when = QDateTime::fromString(stamp, Qt::ISODateWithMs); when.isValid())
        log.time = double(when.toMSecsSinceEpoch()) / 1000.0;
    log.build = optStr(bundleInfo, "CFBundleVersion").value_or(optStr(*header, "build_version").value_or(QString()));
    const QString osBuild = str(osVersion, "build");
    log.os = joinPresent({str(osVersion, "train"), osBuild.isEmpty() ? QString() : QLatin1Char('(') + osBuild + QLatin1Char(')')},
                         QStringLiteral(" "));

    const QJsonObject exception = obj(*report, "exception");
    const QJsonObject termination = obj(*report, "termination");
    const QString signal = str(exception, "signal");
    const QString head = joinPresent({str(exception, "type"), signal.isEmpty() ? QString() : QLatin1Char('(') + signal + QLatin1Char(')')},
                                     QStringLiteral(" "));
    const auto message = optStr(exception, "message");
    QStringList asiLines;
    const QJsonObject asi = obj(*report, "asi");
    QStringList keys = asi.keys();
    keys.sort();
    for (const QString &key : keys) {
        const QJsonValue value = asi.value(key);
        if (value.isString())
            asiLines << key + QStringLiteral(": ") + value.toString();
        else if (value.isArray())
            for (const auto &item : value.toArray())
                if (item.isString())
                    asiLines << key + QStringLiteral(": ") + item.toString();
    }

    const QJsonArray threads = arr(*report, "threads");
    const QJsonArray images = arr(*report, "usedImages");
    qint64 index = 0;
    const QJsonValue faulting = report->value(QLatin1String("faultingThread"));
    if (faulting.isDouble()) {
        index = faulting.toInteger();
    } else {
        for (qsizetype i = 0; i < threads.size(); ++i) {
            if (threads.at(i).toObject().value(QLatin1String("triggered")).toBool()) {
                index = i;
                break;
            }
        }
    }
    const QJsonObject thread = index >= 0 && index < threads.size() ? threads.at(index).toObject() : QJsonObject();
    const QJsonArray frames = arr(thread, "frames");

    std::optional<qsizetype> ownImage;
    for (qsizetype i = 0; i < images.size(); ++i) {
        if (images.at(i).toObject().value(QLatin1String("path")).toString() == *procPath) {
            ownImage = i;
            break;
        }
    }
    std::optional<QJsonObject> ownFrame;
    if (ownImage) {
        for (const auto &f : frames) {
            const QJsonObject frame = f.toObject();
            const QJsonValue imageIndex = frame.value(QLatin1String("imageIndex"));
            const QString symbol = str(frame, "symbol");
            if (imageIndex.isDouble() && imageIndex.toInteger() == *ownImage && !symbol.endsWith(QLatin1String("main()"))
                && symbol != QLatin1String("main")) {
                ownFrame = frame;
                break;
            }
        }
    }

    QString detail = joinPresent({head, message.value_or(QString())}, QStringLiteral(", "));
    if (!asiLines.isEmpty())
        detail += (detail.isEmpty() ? QString() : QStringLiteral(" · ")) + asiLines.front();
    if (ownFrame)
        if (const auto symbol = optStr(*ownFrame, "symbol"))
            detail += QStringLiteral(" · in ") + *symbol;
    const QString prefix = log.process == QLatin1String("Zuv") ? QStringLiteral("Crash") : log.process + QStringLiteral(" crash");
    log.summary = prefix + QStringLiteral(": ") + (detail.isEmpty() ? QStringLiteral("unknown") : detail);

    QStringList lines;
    lines << log.process + QLatin1Char(' ') + str(bundleInfo, "CFBundleShortVersionString") + QStringLiteral(" (") + log.build
                 + QStringLiteral(") · ") + log.os + QStringLiteral(" · ") + str(*report, "modelCode");
    QString crashed = QStringLiteral("Crashed ") + str(*report, "timestamp");
    if (const auto launched = optStr(*report, "procLaunch"))
        crashed += QStringLiteral(", launched ") + *launched;
    lines << crashed;
    if (!head.isEmpty())
        lines << joinPresent({head, str(exception, "subtype")}, QStringLiteral(" "));
    if (message)
        lines << *message;
    if (const auto indicator = optStr(termination, "indicator"))
        lines << QStringLiteral("Termination: ") + str(termination, "namespace") + QLatin1Char(' ') + *indicator;
    for (const auto &reason : arr(termination, "reasons"))
        if (reason.isString())
            lines << QStringLiteral("  ") + reason.toString();
    if (!asiLines.isEmpty()) {
        lines << QStringLiteral("Application Specific Information:");
        lines << asiLines;
    }
    lines << QString();
    QString threadLine = QStringLiteral("Thread ") + QString::number(index) + QStringLiteral(" crashed");
    if (const auto name = optStr(thread, "name"))
        threadLine += QStringLiteral(" (") + *name + QLatin1Char(')');
    else if (const auto queue = optStr(thread, "queue"))
        threadLine += QStringLiteral(" (") + *queue + QLatin1Char(')');
    lines << threadLine + QLatin1Char(':');
    lines << stackLines(frames, images);
    const QJsonArray lastException = arr(*report, "lastExceptionBacktrace");
    if (!lastException.isEmpty()) {
        lines << QString() << QStringLiteral("Last exception backtrace:");
        lines << stackLines(lastException, images);
    }
    if (ownImage) {
        const QJsonObject image = images.at(*ownImage).toObject();
        lines << QString()
              << str(image, "name") + QLatin1Char(' ') + str(image, "uuid") + QStringLiteral(" at 0x")
                     + QString::number(image.value(QLatin1String("base")).toInteger(), 16);
    }

    QJsonObject scrubbed = *report;
    for (const char *key : {"crashReporterKey", "bootSessionUUID", "storeInfo", "trialInfo", "webkitMessageRingBuffer"})
        scrubbed.remove(QLatin1String(key));
    // QJsonDocument never escapes slashes.
    const QString raw = QString::fromUtf8(QJsonDocument(scrubbed).toJson(QJsonDocument::Compact));
    QStringDecoder repair(QStringDecoder::Utf8);
    QString text = lines.join(QLatin1Char('\n')) + QStringLiteral("\n\n--- Raw report ---\n") + repair.decode(headerBytes)
        + QLatin1Char('\n') + raw;
    if (!home.isEmpty())
        text.replace(home, QStringLiteral("~"));
    log.text = text.left(textLimit);
    return log;
}

} // namespace zuv
