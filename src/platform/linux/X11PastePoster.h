#pragma once

#include "platform/Pasteboard.h"

#include <QByteArray>
#include <QString>

struct xcb_connection_t;

namespace zuv {

// The paste keys, posted through XTest to the window that has the focus.
class X11PastePoster final : public PastePoster {
public:
    explicit X11PastePoster(const QByteArray &display = {});
    ~X11PastePoster() override;

    bool canPost() const override { return m_xtest; }
    bool postPaste() override;

    // Terminals take Ctrl+Shift+V, since Ctrl+V is a control character there.
    static bool isTerminal(const QString &instance, const QString &windowClass);

private:
    xcb_connection_t *m_connection = nullptr;
    quint32 m_root = 0;
    bool m_xtest = false;
};

} // namespace zuv
