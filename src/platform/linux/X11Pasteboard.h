#pragma once

#include "platform/Pasteboard.h"

#include <QByteArray>

#include <atomic>
#include <memory>

namespace zuv {

// The X11 clipboard. Reads go through an xcb connection of our own on a thread
// of their own, driven by XFixes selection events, with a time budget for each
// target and for each capture and the announced size checked before a byte is
// downloaded, so that no owner can stall, flood or bloat the app. Our own writes
// go through QClipboard.
struct ClipboardBudgets {
    int targetMs = 1500;  // for one target, and for each INCR chunk, to arrive
    int captureMs = 5000; // for everything one capture reads
    qint64 size = Pasteboard::sizeLimit;
};

class X11Pasteboard final : public Pasteboard {
    Q_OBJECT
public:
    using Budgets = ClipboardBudgets;

    explicit X11Pasteboard(const QByteArray &display = {}, Budgets budgets = {}, QObject *parent = nullptr);
    ~X11Pasteboard() override;

    qint64 changeCount() const override { return m_count->load(); }
    bool watches() const override { return bool(m_worker); }
    QCoro::Task<Offer> offer() override;
    QCoro::Task<Reading> fetch(qint64 changeCount, Plan plan) override;
    void write(const std::vector<Item> &items) override;
    void clear() override;
    QString problem() const override { return m_problem; }

private:
    class Worker;
    std::shared_ptr<std::atomic<qint64>> m_count;
    std::unique_ptr<Worker> m_worker;
    QString m_problem;
};

} // namespace zuv
