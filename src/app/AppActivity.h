#pragma once

#include <QObject>

namespace zuv {

// Whether the app is the one in front, and the moment it comes forward. In the
// app it follows QGuiApplication's state; tests set it by hand.
class AppActivity : public QObject {
    Q_OBJECT
public:
    explicit AppActivity(QObject *parent = nullptr) : QObject(parent) {}

    bool isActive() const { return m_active; }
    void setActive(bool active);
    // Follows QGuiApplication::applicationStateChanged from now on.
    void followApplication();

signals:
    // The app went from the background to the front.
    void becameActive();

private:
    bool m_active = false;
};

} // namespace zuv
