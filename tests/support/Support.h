#pragma once

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QImage>
#include <QString>
#include <QCoro/QCoroTask>

#include <exception>
#include <functional>
#include <optional>

#include <ostream>

// gtest prints QStrings as text.
inline void PrintTo(const QString &s, std::ostream *os) { *os << '"' << s.toStdString() << '"'; }

namespace zuv::test {

// Runs the event loop until `condition` holds or `timeoutMs` of real time pass.
bool waitUntil(const std::function<bool()> &condition, int timeoutMs = 5000);

// Delivers every event already posted, and those they post in turn, without
// waiting for real time to pass. The one way a test lets queued work run.
void drain();

namespace detail {
template<class T>
QCoro::Task<void> collect(QCoro::Task<T> task, std::optional<T> *result, std::exception_ptr *error, bool *done)
{
    try {
        result->emplace(co_await std::move(task));
    } catch (...) {
        *error = std::current_exception();
    }
    *done = true;
}
QCoro::Task<void> collectVoid(QCoro::Task<void> task, std::exception_ptr *error, bool *done);
void awaitDone(const bool &done, const std::exception_ptr &error, int timeoutMs = 30000);
} // namespace detail

// Runs the event loop until a task ends and returns its result or rethrows its
// exception. Fails loudly after `timeoutMs` (30 seconds) instead of hanging.
template<class T>
T await(QCoro::Task<T> task, int timeoutMs = 30000)
{
    std::optional<T> result;
    std::exception_ptr error;
    bool done = false;
    auto runner = detail::collect<T>(std::move(task), &result, &error, &done);
    detail::awaitDone(done, error, timeoutMs);
    return std::move(*result);
}

void await(QCoro::Task<void> task);

// A fresh folder for one test, removed with the object.
class TempHome {
public:
    TempHome();
    ~TempHome();
    QString path() const { return m_path; }
    QString file(const QString &name) const { return m_path + QLatin1Char('/') + name; }

private:
    QString m_path;
};

// A picture in the encoding `format` ("PNG", "TIFF"…); empty when Qt cannot write it.
QByteArray encoded(const QImage &image, const char *format = "PNG");
// A plain picture of that size, encoded.
QByteArray picture(int width, int height, const char *format = "PNG");

// Reads a whole file as text; empty when missing.
QString readText(const QString &path);
void writeText(const QString &path, const QByteArray &data);

} // namespace zuv::test
