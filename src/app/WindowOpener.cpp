#include "app/WindowOpener.h"

#include "base/Log.h"


namespace zuv {

void WindowOpener::show(const std::optional<QString> &conversation, const std::optional<QString> &session)
{
    if (open) {
        open();
    } else {
        log(QStringLiteral("would open the main window%1%2")
                .arg(conversation ? QStringLiteral(" on conversation ") + *conversation : QString(),
                     session ? QStringLiteral(" on session ") + *session : QString()));
    }
    if (!conversation && !session)
        return;
    // On the next turn, once the window that open() made stands.
    QMetaObject::invokeMethod(
        this, [this, conversation, session] { emit showItem(conversation, session); }, Qt::QueuedConnection);
}

} // namespace zuv
