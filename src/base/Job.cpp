#include "base/Job.h"

#include "base/Error.h"
#include "base/Log.h"

#include <utility>

namespace zuv {

QString describe(const std::exception &e)
{
    if (auto *error = dynamic_cast<const Error *>(&e))
        return error->localizedDescription();
    return QString::fromUtf8(e.what());
}

CancelToken::CancelToken() : d(std::make_shared<State>()) {}

bool CancelToken::isCancelled() const { return d->cancelled; }

void CancelToken::cancel() const
{
    if (d->cancelled)
        return;
    d->cancelled = true;
    auto handlers = std::move(d->handlers);
    d->handlers.clear();
    for (auto &[id, handler] : handlers)
        handler();
}

quint64 CancelToken::onCancel(Handler handler) const
{
    if (d->cancelled) {
        handler();
        return 0;
    }
    const quint64 id = d->next++;
    d->handlers.emplace(id, std::move(handler));
    return id;
}

void CancelToken::removeHandler(quint64 id) const { d->handlers.erase(id); }

namespace {

QCoro::Task<void> logged(QCoro::Task<void> task, QString what, std::shared_ptr<bool> running)
{
    try {
        co_await std::move(task);
    } catch (const std::exception &e) {
        log(QStringLiteral("%1 failed: %2").arg(what, describe(e)));
    } catch (...) {
        log(QStringLiteral("%1 failed").arg(what));
    }
    if (running)
        *running = false;
}

} // namespace

void spawn(QCoro::Task<void> task, const QString &what)
{
    // Dropping the returned task detaches it; it frees itself when it ends.
    logged(std::move(task), what, nullptr);
}

Job Job::start(const std::function<QCoro::Task<void>(CancelToken)> &body, const QString &what)
{
    Job job;
    job.m_running = std::make_shared<bool>(true);
    logged(body(job.m_token), what, job.m_running);
    return job;
}

Job::~Job() { m_token.cancel(); }

Job::Job(Job &&other) noexcept : m_token(std::exchange(other.m_token, CancelToken())), m_running(std::move(other.m_running)) {}

Job &Job::operator=(Job &&other) noexcept
{
    if (this != &other) {
        m_token.cancel(); // the task it replaces ends
        m_token = std::exchange(other.m_token, CancelToken());
        m_running = std::move(other.m_running);
    }
    return *this;
}

void Job::cancel() const { m_token.cancel(); }

} // namespace zuv
