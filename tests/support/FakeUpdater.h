#pragma once

#include "platform/Updater.h"

namespace zuv::test {

// Counts what the update backend was asked to do.
struct FakeUpdater final : Updater {
    int dialogs = 0;
    int background = 0;
    void checkForUpdates() override { ++dialogs; }
    void checkInBackground() override { ++background; }
};

} // namespace zuv::test
