#pragma once

#include "platform/Updater.h"

namespace zuv {

// Updates for a build from source: a newer checkout is built and started by
// scripts/run. This tells the user so; it installs nothing itself.
class SourceUpdater final : public Updater {
public:
    void checkForUpdates() override;
    void checkInBackground() override;
};

} // namespace zuv
