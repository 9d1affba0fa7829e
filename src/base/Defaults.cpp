#include "base/Defaults.h"

#include "base/Log.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QSaveFile>

namespace zuv {

namespace {

template<class T>
Read<T> typed(const QJsonValue &value, bool (QJsonValue::*is)() const, T (*get)(const QJsonValue &))
{
    Read<T> read;
    if (value.isUndefined())
        return read;
    if (!(value.*is)()) {
        read.state = Read<T>::State::OtherType;
        return read;
    }
    read.state = Read<T>::State::Present;
    read.value = get(value);
    return read;
}

// A free name beside `file` for keeping a broken copy.
QString brokenName(const QString &file)
{
    QString candidate = file + QStringLiteral(".broken");
    for (int n = 1; QFileInfo::exists(candidate); ++n)
        candidate = file + QStringLiteral(".broken.%1").arg(n);
    return candidate;
}

} // namespace

Defaults::Defaults(QString file, QObject *parent) : QObject(parent), m_file(std::move(file)) { load(); }


void Defaults::load()
{
    QFile in(m_file);
    if (!in.exists())
        return;
    if (!in.open(QIODevice::ReadOnly)) {
        m_problem = QStringLiteral("Couldn't read %1 (%2); changes are kept until quit only.")
                        .arg(m_file, in.errorString());
        m_memoryOnly = true;
        log(m_problem);
        return;
    }
    const QByteArray data = in.readAll();
    in.close();
    QJsonParseError error{};
    const QJsonDocument document = QJsonDocument::fromJson(data, &error);
    if (error.error == QJsonParseError::NoError && document.isObject()) {
        m_stored = document.object();
        return;
    }
    const QString reason = error.error != QJsonParseError::NoError
        ? QStringLiteral("%1 at offset %2").arg(error.errorString()).arg(error.offset)
        : QStringLiteral("not a JSON object");
    const QString kept = brokenName(m_file);
    const bool moved = QFile::rename(m_file, kept);
    m_problem = moved
        ? QStringLiteral("Settings file %1 is not valid (%2); starting with defaults. The old file is kept as %3.")
              .arg(m_file, reason, kept)
        : QStringLiteral("Settings file %1 is not valid (%2) and couldn't be moved aside; starting with "
                         "defaults, and changes are kept until quit only.")
              .arg(m_file, reason);
    m_memoryOnly = !moved;
    log(m_problem);
}

void Defaults::save()
{
    // A file we could not read or move aside holds the user's data: never overwrite it.
    if (m_memoryOnly)
        return;
    QDir().mkpath(QFileInfo(m_file).absolutePath());
    QSaveFile out(m_file);
    out.setDirectWriteFallback(false);
    const QByteArray data = QJsonDocument(m_stored).toJson(QJsonDocument::Indented);
    if (!out.open(QIODevice::WriteOnly) || out.write(data) != data.size() || !out.commit()) {
        m_problem = QStringLiteral("Couldn't save settings to %1: %2").arg(m_file, out.errorString());
        log(m_problem);
        return;
    }
    QFile::setPermissions(m_file, QFileDevice::ReadOwner | QFileDevice::WriteOwner);
}

void Defaults::registerDefaults(const QJsonObject &values)
{
    for (auto it = values.begin(); it != values.end(); ++it)
        m_registered.insert(it.key(), it.value());
}

QJsonValue Defaults::value(const QString &key) const
{
    auto stored = m_stored.constFind(key);
    if (stored != m_stored.constEnd())
        return *stored;
    auto registered = m_registered.constFind(key);
    return registered != m_registered.constEnd() ? *registered : QJsonValue(QJsonValue::Undefined);
}

Read<bool> Defaults::boolean(const QString &key) const
{
    return typed<bool>(value(key), &QJsonValue::isBool, [](const QJsonValue &v) { return v.toBool(); });
}

Read<double> Defaults::number(const QString &key) const
{
    return typed<double>(value(key), &QJsonValue::isDouble, [](const QJsonValue &v) { return v.toDouble(); });
}

Read<QString> Defaults::string(const QString &key) const
{
    return typed<QString>(value(key), &QJsonValue::isString, [](const QJsonValue &v) { return v.toString(); });
}

Read<QJsonArray> Defaults::array(const QString &key) const
{
    return typed<QJsonArray>(value(key), &QJsonValue::isArray, [](const QJsonValue &v) { return v.toArray(); });
}

Read<QJsonObject> Defaults::object(const QString &key) const
{
    return typed<QJsonObject>(value(key), &QJsonValue::isObject, [](const QJsonValue &v) { return v.toObject(); });
}

void Defaults::set(const QString &key, const QJsonValue &value)
{
    if (value.isUndefined()) {
        remove(key);
        return;
    }
    if (m_stored.value(key) == value && m_stored.contains(key))
        return;
    m_stored.insert(key, value);
    save();
    emit changed(key);
}

void Defaults::remove(const QString &key)
{
    if (!m_stored.contains(key))
        return;
    m_stored.remove(key);
    save();
    emit changed(key);
}

} // namespace zuv
