#pragma once

#include "platform/HotKeyService.h"

#include <map>
#include <set>
#include <utility>

namespace zuv::test {

// Global key grabs in memory: what is grabbed by id, combinations other programs
// hold, and presses made by the test.
class FakeHotKeyService final : public HotKeyService {
public:
    std::map<quint32, std::pair<quint32, quint32>> grabbed; // id to key code and modifiers
    std::set<std::pair<quint32, quint32>> taken;            // held by other programs
    int grabs = 0;

    bool grab(quint32 id, quint32 keyCode, quint32 modifiers) override
    {
        ++grabs;
        if (taken.count({keyCode, modifiers}))
            return false;
        grabbed[id] = {keyCode, modifiers};
        return true;
    }
    void ungrab(quint32 id) override { grabbed.erase(id); }
    QString problem() const override { return {}; }

    // A press of the grab `id`.
    void press(quint32 id) { emit pressed(id, 77); }
    // A press of the keys, whoever grabbed them.
    void press(quint32 keyCode, quint32 modifiers)
    {
        for (const auto &[id, combo] : grabbed)
            if (combo == std::pair{keyCode, modifiers})
                emit pressed(id, 42);
    }
};

} // namespace zuv::test
