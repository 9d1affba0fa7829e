#pragma once

#include "base/Shared.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QJsonValue>
#include <QObject>

namespace zuv {

// The result of a typed read: the key may be absent, present with the asked type,
// or present with another type (which callers usually treat as absent).
template<class T>
struct Read {
    enum class State { Absent, OtherType, Present };
    State state = State::Absent;
    T value{};

    bool present() const { return state == State::Present; }
    bool absent() const { return state == State::Absent; }
    bool otherType() const { return state == State::OtherType; }
    T valueOr(T fallback) const { return present() ? value : fallback; }
};

// The user's local settings: one JSON object in a file, values keeping their JSON
// types. Registered defaults live in memory only and answer for absent keys.
// Every change is written at once, atomically.
class Defaults : public QObject, public Shared<Defaults> {
    Q_OBJECT
public:
    // Loads `file`. A file that is not a JSON object is moved aside (".broken")
    // and logged; the app goes on with the registered defaults.
    explicit Defaults(QString file, QObject *parent = nullptr);

    void registerDefaults(const QJsonObject &values);

    // The stored value, else the registered one, else undefined.
    QJsonValue value(const QString &key) const;

    Read<bool> boolean(const QString &key) const;
    Read<double> number(const QString &key) const;
    Read<QString> string(const QString &key) const;
    Read<QJsonArray> array(const QString &key) const;
    Read<QJsonObject> object(const QString &key) const;

    void set(const QString &key, const QJsonValue &value);
    void remove(const QString &key);

    QString file() const { return m_file; }
    // Why the file could not be loaded or written, if it could not; else empty.
    QString problem() const { return m_problem; }

signals:
    void changed(const QString &key);

private:
    void load();
    void save();

    QString m_file;
    QJsonObject m_stored;
    QJsonObject m_registered;
    QString m_problem;
    bool m_memoryOnly = false;
};

} // namespace zuv
