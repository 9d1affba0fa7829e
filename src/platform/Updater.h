#pragma once

namespace zuv {

// The update backend: it finds, downloads and installs new builds.
class Updater {
public:
    virtual ~Updater() = default;
    // Looks now and shows what it finds (the update dialog).
    virtual void checkForUpdates() = 0;
    // Looks now without a dialog unless an update is found.
    virtual void checkInBackground() = 0;
};

} // namespace zuv
