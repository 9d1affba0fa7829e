#include "Support.h"

#include <QBuffer>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QThread>

#include <stdexcept>

namespace zuv::test {

bool waitUntil(const std::function<bool()> &condition, int timeoutMs)
{
    QElapsedTimer timer;
    timer.start();
    while (!condition()) {
        if (timer.elapsed() > timeoutMs)
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        if (!condition())
            QThread::usleep(200);
    }
    return true;
}

namespace detail {

QCoro::Task<void> collectVoid(QCoro::Task<void> task, std::exception_ptr *error, bool *done)
{
    try {
        co_await std::move(task);
    } catch (...) {
        *error = std::current_exception();
    }
    *done = true;
}

void awaitDone(const bool &done, const std::exception_ptr &error, int timeoutMs)
{
    if (!waitUntil([&] { return done; }, timeoutMs))
        throw std::runtime_error("the awaited task did not finish in time");
    if (error)
        std::rethrow_exception(error);
}

} // namespace detail

void await(QCoro::Task<void> task)
{
    std::exception_ptr error;
    bool done = false;
    auto runner = detail::collectVoid(std::move(task), &error, &done);
    detail::awaitDone(done, error);
}

void drain()
{
    // Queued work may queue more; a few rounds settle every chain we start.
    for (int round = 0; round < 50; ++round) {
        QCoreApplication::sendPostedEvents();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        QCoreApplication::processEvents(QEventLoop::AllEvents);
    }
}

TempHome::TempHome()
{
    QTemporaryDir dir(QDir::tempPath() + QStringLiteral("/zuv-test-XXXXXX"));
    dir.setAutoRemove(false);
    m_path = dir.path();
}

TempHome::~TempHome() { QDir(m_path).removeRecursively(); }

QString readText(const QString &path)
{
    QFile in(path);
    if (!in.open(QIODevice::ReadOnly))
        return {};
    return QString::fromUtf8(in.readAll());
}

QByteArray encoded(const QImage &image, const char *format)
{
    QByteArray out;
    QBuffer buffer(&out);
    buffer.open(QIODevice::WriteOnly);
    return image.save(&buffer, format) ? out : QByteArray();
}

QByteArray picture(int width, int height, const char *format)
{
    QImage image(width, height, QImage::Format_RGB32);
    image.fill(Qt::red);
    return encoded(image, format);
}

void writeText(const QString &path, const QByteArray &data)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile out(path);
    if (out.open(QIODevice::WriteOnly | QIODevice::Truncate))
        out.write(data);
}

} // namespace zuv::test
