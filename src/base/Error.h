#pragma once

#include <QByteArray>
#include <QString>
#include <exception>

namespace zuv {

// The one root of every error this program throws. Callers show
// localizedDescription() to the user, so it must read well on its own.
class Error : public std::exception {
public:
    explicit Error(QString description)
        : m_description(std::move(description)), m_utf8(m_description.toUtf8()) {}

    QString localizedDescription() const { return m_description; }
    const char *what() const noexcept override { return m_utf8.constData(); }

private:
    QString m_description;
    QByteArray m_utf8;
};

// A reply or a stored value that does not have the shape we expect.
class DecodingError : public Error {
public:
    using Error::Error;
};

// A transport failure: no HTTP answer at all (refused, reset, timed out, cancelled).
class NetworkError : public Error {
public:
    NetworkError(QString description, bool cancelled = false)
        : Error(std::move(description)), m_cancelled(cancelled) {}
    bool cancelled() const { return m_cancelled; }

private:
    bool m_cancelled;
};

// Text for any exception that reaches a catch-all.
QString describe(const std::exception &e);

} // namespace zuv
