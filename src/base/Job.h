#pragma once

#include <QString>
#include <QCoro/QCoroTask>

#include <functional>
#include <map>
#include <memory>

namespace zuv {

// Shared cancellation flag of one task. Copies share the state, so a task that
// was handed a token sees its owner's cancel().
class CancelToken {
public:
    using Handler = std::function<void()>;

    CancelToken();

    bool isCancelled() const;
    void cancel() const;

    // Runs `handler` when the token is cancelled (at once if it already is).
    // Handlers run synchronously inside cancel(); they must only post work.
    quint64 onCancel(Handler handler) const;
    void removeHandler(quint64 id) const;

private:
    struct State {
        bool cancelled = false;
        quint64 next = 1;
        std::map<quint64, Handler> handlers;
    };
    std::shared_ptr<State> d;
};

// A started task with its cancellation token. Kept in a field by the owner of a
// long-lived task; cancel() wakes its sleeps and aborts its network replies.
// A Job has one owner: it moves but does not copy, and it cancels its task when
// it is destroyed or replaced, so a task never outlives the field that holds it.
class Job {
public:
    Job() = default;
    ~Job();
    Job(const Job &) = delete;
    Job &operator=(const Job &) = delete;
    Job(Job &&other) noexcept;
    Job &operator=(Job &&other) noexcept;

    // Starts body(token) at once. An exception that escapes the body is logged.
    static Job start(const std::function<QCoro::Task<void>(CancelToken)> &body, const QString &what);

    void cancel() const;
    bool isCancelled() const { return m_token.isCancelled(); }
    bool isRunning() const { return m_running && *m_running; }

private:
    CancelToken m_token;
    std::shared_ptr<bool> m_running;
};

// The one way synchronous code starts a task it does not wait for: the task runs
// detached, and an exception that escapes it is written to the log, not dropped.
void spawn(QCoro::Task<void> task, const QString &what);

} // namespace zuv
