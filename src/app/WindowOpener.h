#pragma once

#include "base/Shared.h"

#include <QObject>
#include <QString>

#include <functional>
#include <optional>

namespace zuv {

// How any part of the app opens the main window on an item. The window fills
// `open` once it exists; until then a request is written to app.log.
class WindowOpener : public QObject, public Shared<WindowOpener> {
    Q_OBJECT
public:
    using QObject::QObject;

    std::function<void()> open;     // opens or raises the main window
    std::function<void()> settings; // opens the settings window

    void show(const std::optional<QString> &conversation, const std::optional<QString> &session);

signals:
    // The window should select this conversation or session.
    void showItem(const std::optional<QString> &conversation, const std::optional<QString> &session);
};

} // namespace zuv
