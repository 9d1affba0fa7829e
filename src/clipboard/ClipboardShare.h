#pragma once

#include "base/Job.h"
#include "settings/Overview.h"
#include "shortcuts/KeyCombo.h"

#include <QByteArray>
#include <QObject>
#include <QStringList>
#include <QCoro/QCoroTask>

#include <functional>
#include <optional>
#include <vector>

namespace zuv {

class Clock;
class Defaults;
class HotKeys;
class MacAPI;
class Pasteboard;

// Puts this computer's clipboard on another computer of the account, through the
// hub: a text in the request, a picture or files uploaded first. The other
// computer's agent applies it there.
class ClipboardShare : public QObject {
    Q_OBJECT
public:
    struct Payload {
        enum class Kind { text, image, files };
        Kind kind = Kind::text;
        QString text;
        QByteArray png;
        QStringList files; // local paths
    };
    // A short message at the bottom of the screen; `symbol` names what it shows.
    using Toast = std::function<void(const QString &text, const QString &symbol, bool sticky)>;

    // `hotKeys` may be null where no global shortcut can be had; `paired` tells
    // whether the computer is paired.
    ClipboardShare(Clock &clock, Defaults &defaults, MacAPI &api, Pasteboard &pasteboard, HotKeys *hotKeys,
                   std::function<bool()> paired, QObject *parent = nullptr);
    ~ClipboardShare() override;

    const std::vector<Me::Mac> &macs() const { return m_macs; }
    bool sending() const { return m_sending; }
    std::optional<QString> target() const { return m_target; }
    const std::optional<KeyCombo> &combo() const { return m_combo; }
    std::optional<QString> thisName() const { return m_thisName; }
    // The owner that already uses `combo` (and then nothing changed), or none.
    std::optional<QString> setCombo(const std::optional<KeyCombo> &combo);
    void setTarget(const QString &id);

    QCoro::Task<void> refresh();
    std::optional<Me::Mac> defaultTarget() const;
    QCoro::Task<void> sendToTarget();
    QCoro::Task<void> send(Me::Mac mac);
    QCoro::Task<std::optional<Payload>> read();
    // A folder as a zip of itself, in `into`; throws an Error.
    static QCoro::Task<QString> zip(QString folder, QString into);
    static QString message(const std::exception &error, const Me::Mac &mac);

    // Every ten minutes while running: the list of computers to send to.
    void startRefreshing();

    Toast toast;
    // Who else holds a key combination (app shortcuts, the clipboard panel).
    std::function<std::optional<QString>(const KeyCombo &)> conflict;

    static constexpr int longestText = 100000;
    static constexpr int mostFiles = 50;
    static constexpr qint64 largestFile = 104'857'600;
    static constexpr double refreshInterval = 600;

signals:
    void changed(); // macs, sending, target, combo, thisName

private:
    void apply();
    QCoro::Task<void> refreshing(CancelToken token);
    void setSending(bool sending);

    Clock &m_clock;
    Defaults &m_defaults;
    MacAPI &m_api;
    Pasteboard &m_pasteboard;
    HotKeys *m_hotKeys;
    std::function<bool()> m_paired;
    std::vector<Me::Mac> m_macs;
    bool m_sending = false;
    std::optional<QString> m_target;
    std::optional<KeyCombo> m_combo;
    std::optional<quint32> m_hotKey;
    std::optional<QString> m_thisName;
    Job m_refresh;
    CancelToken m_lifetime;
};

} // namespace zuv
