#include "app/AppActivity.h"

#include <QGuiApplication>

namespace zuv {

void AppActivity::setActive(bool active)
{
    if (active == m_active)
        return;
    m_active = active;
    if (active)
        emit becameActive();
}

void AppActivity::followApplication()
{
    auto *app = qobject_cast<QGuiApplication *>(QCoreApplication::instance());
    if (!app)
        return;
    setActive(QGuiApplication::applicationState() == Qt::ApplicationActive);
    connect(app, &QGuiApplication::applicationStateChanged, this,
            [this](Qt::ApplicationState state) { setActive(state == Qt::ApplicationActive); });
}

} // namespace zuv
