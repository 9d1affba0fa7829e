#pragma once

#include "platform/Pasteboard.h"

#include <QStringList>

namespace zuv::test {

// A clipboard in memory. copy() is another application copying; what the
// history fetched, and what it wrote, is kept for the test to read.
class FakePasteboard final : public Pasteboard {
public:
    std::vector<Item> items;
    std::optional<qint64> pid;
    qint64 count = 0;
    bool watching = true;
    int expireNext = 0;   // offers that time out before one answers
    QStringList fetched;  // every type handed over, in order
    int offers = 0;
    std::vector<std::vector<Item>> written;
    int clears = 0;

    void copy(std::vector<Item> copied, std::optional<qint64> owner = std::nullopt)
    {
        items = std::move(copied);
        pid = owner;
        ++count;
        if (watching)
            emit changed();
    }

    qint64 changeCount() const override { return count; }
    bool watches() const override { return watching; }

    QCoro::Task<Offer> offer() override
    {
        ++offers;
        Offer offer;
        offer.changeCount = count;
        if (expireNext > 0) {
            --expireNext;
            offer.outcome = Outcome::expired;
            co_return offer;
        }
        offer.outcome = items.empty() ? Outcome::empty : Outcome::read;
        for (const Item &item : items)
            for (const PasteboardContent &c : item)
                if (!offer.types.contains(c.type))
                    offer.types << c.type;
        offer.ownerPid = pid;
        co_return offer;
    }

    QCoro::Task<Reading> fetch(qint64 changeCount, Plan plan) override
    {
        Reading reading;
        if (changeCount != count) {
            reading.outcome = Outcome::changed;
            co_return reading;
        }
        reading.outcome = Outcome::read;
        // As on X11: the password managers' mark is read first, and then nothing.
        for (const Item &item : items)
            for (const PasteboardContent &c : item)
                if (c.type == QLatin1String("x-kde-passwordManagerHint") && c.data == "secret") {
                    fetched << c.type;
                    reading.outcome = Outcome::concealed;
                    co_return reading;
                }
        bool text = false;
        for (const Item &item : items) {
            Item kept;
            for (const PasteboardContent &c : item) {
                if (!plan.fetch.contains(c.type))
                    continue;
                kept.push_back(c);
                fetched << c.type;
                text = text || (c.type.startsWith(QLatin1String("text/plain")) && !c.data.trimmed().isEmpty());
            }
            reading.items.push_back(kept);
        }
        if (!text && !reading.items.empty()) {
            for (const PasteboardContent &c : items.front()) {
                if (plan.unlessText.contains(c.type)) {
                    reading.items.front().push_back(c);
                    fetched << c.type;
                    break;
                }
            }
        }
        co_return reading;
    }

    void write(const std::vector<Item> &copied) override
    {
        written.push_back(copied);
        items = copied;
        ++count;
    }
    void clear() override
    {
        ++clears;
        items.clear();
        ++count;
    }
    QString problem() const override { return {}; }
};

} // namespace zuv::test
