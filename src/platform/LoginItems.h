#pragma once

#include <QString>

#include <optional>

namespace zuv {

// Whether the app opens when the person logs in.
class LoginItems {
public:
    enum class Status { notRegistered, enabled, requiresApproval, notFound };

    virtual ~LoginItems() = default;
    virtual Status status() const = 0;
    // None on success, else why it failed, in words for the person.
    virtual std::optional<QString> registerApp() = 0;
    virtual std::optional<QString> unregisterApp() = 0;
    // Where the desktop lets the person allow it.
    virtual void openSettings() = 0;
};

// What the desktop lets the app see and do on the screen.
class ScreenAccess {
public:
    virtual ~ScreenAccess() = default;
    virtual bool screenRecording() const = 0;
    virtual bool accessibility() const = 0;
    // True when granted at once; false when the desktop decides later.
    virtual bool requestScreenRecording() = 0;
    virtual bool requestAccessibility() = 0;
    // One sentence on why the grants stand as they do.
    virtual QString reason() const = 0;
};

} // namespace zuv
