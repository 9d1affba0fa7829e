#pragma once

#include "base/Job.h"
#include "base/Shared.h"
#include "clipboard/Clip.h"
#include "clipboard/ClipSearch.h"
#include "platform/Pasteboard.h"
#include "shortcuts/KeyCombo.h"

#include <QCache>
#include <QHash>
#include <QImage>
#include <QObject>
#include <QSize>
#include <QCoro/QCoroTask>

#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace zuv {

class ClipStore;
class Clock;
struct OutgoingFile;
class Defaults;
class HotKeys;
class Workspace;

// The clipboard history: it watches the clipboard, turns each copy it may keep
// into a clip, keeps the clips in memory in display order with their store on
// disk, and does what the person asks of a clip.
class ClipboardHistory : public QObject, public Shared<ClipboardHistory> {
    Q_OBJECT
public:
    struct Match {
        Clip clip;
        std::vector<ClipSearch::Range> ranges;
    };
    struct Preview {
        QImage image;
        QSize pixels; // the picture's own size
    };
    struct PictureFile {
        QByteArray data;
        QString extension;
    };

    // `hotKeys` may be null where no global shortcut can be had.
    ClipboardHistory(Clock &clock, Defaults &defaults, Pasteboard &pasteboard, Workspace &workspace,
                     HotKeys *hotKeys, QString folder, QObject *parent = nullptr);
    ~ClipboardHistory() override;

    static void registerDefaults(Defaults &defaults);
    static QString fileName() { return QStringLiteral("Clipboard.sqlite"); }
    // The pin keys: letters the panel does not use for its own commands.
    static const QStringList &pinLetters();
    // This application's own id, the `app` of what it copies itself.
    static QString ownApp() { return QStringLiteral("com.kelmor.zuv.mac.desktop"); }

    const std::vector<Clip> &clips() const { return m_clips; }
    const std::optional<QString> &problem() const { return m_problem; }
    bool enabled() const { return m_enabled; }
    void setEnabled(bool enabled);
    bool paused() const { return m_paused; }
    void setPaused(bool paused);
    bool ignoreNext() const { return m_ignoreNext; }
    void setIgnoreNext(bool ignore);
    const std::optional<KeyCombo> &combo() const { return m_combo; }
    // The owner that already uses `combo` (and then nothing changed), or none.
    std::optional<QString> setCombo(const std::optional<KeyCombo> &combo);
    bool importing() const { return m_importing; }
    ClipStore *store() const { return m_store.get(); }
    std::shared_ptr<ClipStore> sharedStore() const { return m_store; }
    qint64 changeCount() const { return m_changeCount; }

    // Who else holds global shortcuts, asked by setCombo: an owner's name, or none.
    std::function<std::optional<QString>(const KeyCombo &)> conflict;
    // What the shortcut does: show or hide the clipboard panel.
    std::function<void()> togglePanel;
    // Starts the text recognition of pictures not yet read, when there is one.
    std::function<void()> recognize;
    // Posts the paste keys; none where they cannot be posted.
    PastePoster *poster = nullptr;
    std::function<void()> beep;
    // Hands a text and files to the chat, to ask about them.
    std::function<void(const QString &, const std::vector<OutgoingFile> &)> handoff;

    void start();
    void check();
    void record(const std::vector<ClipContent> &contents, const std::optional<QString> &app, double at);
    void sortAndTrim();
    // The recognition queue's end (it runs again for pictures copied meanwhile),
    // and the text it read in a picture.
    void recognitionDone();
    void setText(qint64 id, const QString &text);

    std::vector<Match> search(const QString &query);

    void copy(const Clip &clip, bool plain);
    // Copies, and with `paste` posts the paste keys; false when it only copied
    // because keys cannot be posted here.
    bool use(const Clip &clip, bool paste, bool plain);
    void copyText(const QString &text);
    bool putReceived(const QString &file, bool image);
    bool putReceivedFiles(const QStringList &paths);
    // The text last put on the clipboard from another device, while it is the latest put.
    std::optional<QString> receivedText() const { return m_receivedText; }
    void togglePin(qint64 id);
    void remove(const std::vector<qint64> &ids);
    void clear(bool all);
    // At quit: unpinned clips go when the person asked for that.
    void quit();

    QString title(const Clip &clip);
    QString fullText(const Clip &clip);
    QCoro::Task<std::optional<QImage>> thumbnail(Clip clip);
    QCoro::Task<std::optional<Preview>> previewImage(Clip clip);
    QCoro::Task<std::optional<QByteArray>> image(Clip clip);
    QCoro::Task<std::optional<PictureFile>> pictureFile(qint64 id);
    // A file the phone sent, as a clip of the phone's: a picture, or UTF-8 text.
    bool addFromPhone(const QString &file, bool image);
    // The picture at 360 pixels as JPEG, for the phone; cached.
    QCoro::Task<std::optional<QByteArray>> phoneThumbnail(Clip clip);
    // Gives the clip to the chat: its text, its files, or its picture as a PNG.
    QCoro::Task<void> askZuv(Clip clip);

    // Scales the picture in `data` so that its longest side is at most `side`,
    // with its orientation applied; none when it does not decode. Safe on any thread.
    static std::optional<Preview> scaled(const QByteArray &data, int side);
    // The clip's first picture, scaled so; any thread.
    static std::optional<Preview> picture(ClipStore &store, qint64 id, int side);

signals:
    void clipsChanged();
    void problemChanged();
    void enabledChanged();
    void pausedChanged();
    void comboChanged();

private:
    QCoro::Task<void> capture(qint64 changeCount, CancelToken token);
    QCoro::Task<void> poll(double interval, CancelToken token);
    QCoro::Task<void> later(double seconds, CancelToken token);
    void registerHotKey();
    Clip *find(qint64 id);
    void touch(qint64 id);
    void noteOwnWrite();
    // Our own copy: on the clipboard now, never read back, and in the history as ours.
    void writeOwn(const std::vector<Pasteboard::Item> &items, const std::vector<ClipContent> &rows);

    Clock &m_clock;
    Defaults &m_defaults;
    Pasteboard &m_pasteboard;
    Workspace &m_workspace;
    HotKeys *m_hotKeys;
    QString m_folder;

    std::vector<Clip> m_clips;
    std::optional<QString> m_problem;
    bool m_enabled = false;
    bool m_paused = false;
    bool m_ignoreNext = false;
    std::optional<KeyCombo> m_combo;
    bool m_importing = false;
    std::shared_ptr<ClipStore> m_store; // shared with picture work off the main thread
    Job m_timer;
    qint64 m_changeCount = 0;
    std::optional<quint32> m_hotKey;
    QHash<qint64, QString> m_titles;
    QHash<qint64, ClipSearch::Folded> m_foldedTitles;
    bool m_recognizing = false;
    QCache<qint64, QImage> m_thumbnails;
    QCache<qint64, QByteArray> m_phoneThumbnails;

    Job m_capture;      // the read of the latest change
    Job m_deferred;     // a check put off by the storm limit
    std::deque<double> m_captureTimes;
    std::optional<QString> m_receivedText;
};

} // namespace zuv
