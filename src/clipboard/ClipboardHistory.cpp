#include "clipboard/ClipboardHistory.h"

#include "base/Clock.h"
#include "base/Defaults.h"
#include "base/Log.h"
#include "clipboard/ClipRules.h"
#include "clipboard/ClipStore.h"
#include "platform/Workspace.h"
#include "shortcuts/HotKeys.h"

#include <QDir>
#include <QJsonArray>
#include <QPointer>

#include <malloc.h>

namespace zuv {

namespace {

QStringList strings(const QJsonArray &array)
{
    QStringList out;
    for (const QJsonValue &v : array)
        if (v.isString())
            out << v.toString();
    return out;
}

// Captures are at most this many a second: some owners set the clipboard again
// whenever it is read.
constexpr size_t stormCaptures = 10;
// Waits before reading again an owner that did not answer in time.
constexpr double retryDelays[] = {0.1, 0.4, 1.6};

} // namespace

ClipboardHistory::ClipboardHistory(Clock &clock, Defaults &defaults, Pasteboard &pasteboard, Workspace &workspace,
                                   HotKeys *hotKeys, QString folder, QObject *parent)
    : QObject(parent), m_clock(clock), m_defaults(defaults), m_pasteboard(pasteboard), m_workspace(workspace),
      m_hotKeys(hotKeys), m_folder(std::move(folder)), m_thumbnails(64), m_phoneThumbnails(256)
{
    registerDefaults(defaults);
    m_enabled = defaults.boolean(QStringLiteral("clip-enabled")).valueOr(false);
    m_paused = defaults.boolean(QStringLiteral("clip-paused")).valueOr(false);
    const QJsonValue stored = defaults.value(QStringLiteral("clip-shortcut"));
    if (stored.isUndefined())
        m_combo = KeyCombo{8, KeyCombo::command | KeyCombo::shift, QStringLiteral("C")};
    else
        m_combo = KeyCombo::fromJson(stored); // null or undecodable: no shortcut
    connect(&m_pasteboard, &Pasteboard::changed, this, &ClipboardHistory::check);
}

ClipboardHistory::~ClipboardHistory()
{
    if (m_hotKey && m_hotKeys)
        m_hotKeys->remove(*m_hotKey);
}

void ClipboardHistory::registerDefaults(Defaults &defaults)
{
    QJsonObject d;
    d.insert(QStringLiteral("clip-enabled"), false);
    d.insert(QStringLiteral("clip-paste"), false);
    d.insert(QStringLiteral("clip-plain"), false);
    d.insert(QStringLiteral("clip-search"), QStringLiteral("exact"));
    d.insert(QStringLiteral("clip-pins"), QStringLiteral("top"));
    d.insert(QStringLiteral("clip-position"), QStringLiteral("cursor"));
    d.insert(QStringLiteral("clip-preview"), 500);
    d.insert(QStringLiteral("clip-app-icons"), false);
    d.insert(QStringLiteral("clip-symbols"), true);
    d.insert(QStringLiteral("clip-swatches"), true);
    d.insert(QStringLiteral("clip-image-height"), 40);
    d.insert(QStringLiteral("clip-highlight"), QStringLiteral("bold"));
    d.insert(QStringLiteral("clip-save-text"), true);
    d.insert(QStringLiteral("clip-save-images"), true);
    d.insert(QStringLiteral("clip-save-files"), true);
    d.insert(QStringLiteral("clip-size"), 200);
    d.insert(QStringLiteral("clip-sort"), QStringLiteral("last"));
    d.insert(QStringLiteral("clip-clear-on-quit"), false);
    d.insert(QStringLiteral("clip-clear-system"), false);
    d.insert(QStringLiteral("clip-only-listed-apps"), false);
    d.insert(QStringLiteral("clip-confirm-clear"), true);
    d.insert(QStringLiteral("clip-footer"), true);
    d.insert(QStringLiteral("clip-interval"), 0.5);
    d.insert(QStringLiteral("clip-ignored-types"),
             QJsonArray{QStringLiteral("com.agilebits.onepassword"), QStringLiteral("com.typeit4me.clipping"),
                        QStringLiteral("de.petermaurer.TransientPasteboardType"),
                        QStringLiteral("Pasteboard generator type"), QStringLiteral("net.antelle.keeweb")});
    defaults.registerDefaults(d);
}

const QStringList &ClipboardHistory::pinLetters()
{
    static const QStringList letters = [] {
        QStringList out;
        for (const QChar c : QStringLiteral("bcdefghijklmnorstuxy"))
            out << QString(c);
        return out;
    }();
    return letters;
}

void ClipboardHistory::setEnabled(bool enabled)
{
    m_enabled = enabled;
    m_defaults.set(QStringLiteral("clip-enabled"), enabled);
    emit enabledChanged();
    start();
}

void ClipboardHistory::setPaused(bool paused)
{
    m_paused = paused;
    m_defaults.set(QStringLiteral("clip-paused"), paused);
    emit pausedChanged();
}

void ClipboardHistory::setIgnoreNext(bool ignore) { m_ignoreNext = ignore; }

std::optional<QString> ClipboardHistory::setCombo(const std::optional<KeyCombo> &combo)
{
    if (combo && combo != m_combo && conflict) {
        if (auto owner = conflict(*combo))
            return owner;
    }
    m_combo = combo;
    m_defaults.set(QStringLiteral("clip-shortcut"), combo ? QJsonValue(combo->toJson()) : QJsonValue());
    registerHotKey();
    emit comboChanged();
    return std::nullopt;
}

void ClipboardHistory::registerHotKey()
{
    if (!m_hotKeys)
        return;
    if (m_hotKey) {
        m_hotKeys->remove(*m_hotKey);
        m_hotKey.reset();
    }
    if (m_enabled && m_combo) {
        QPointer<ClipboardHistory> self(this);
        m_hotKey = m_hotKeys->add(*m_combo, [self] {
            if (self && self->togglePanel)
                self->togglePanel();
        });
    }
}

void ClipboardHistory::start()
{
    registerHotKey();
    m_timer.cancel();
    if (!m_enabled)
        return;
    if (!m_store) {
        try {
            if (!QDir().mkpath(m_folder))
                throw ClipStore::Failure(tr("The folder %1 could not be created.").arg(m_folder));
            m_store = std::make_shared<ClipStore>(QDir(m_folder).filePath(fileName()));
            m_clips = m_store->all();
            m_store->releaseMemory();
            malloc_trim(0); // what the load used and let go goes back to the system
            m_titles.clear();
            m_foldedTitles.clear();
            sortAndTrim();
            log(QStringLiteral("clipboard history: %1 clips").arg(m_clips.size()));
            if (m_problem) {
                m_problem.reset();
                emit problemChanged();
            }
            if (!m_recognizing && recognize) {
                m_recognizing = true;
                recognize();
            }
        } catch (const Error &e) {
            m_store.reset();
            m_problem = e.localizedDescription();
            log(QStringLiteral("clipboard history: ") + *m_problem);
            emit problemChanged();
            return;
        }
    }
    m_changeCount = m_pasteboard.changeCount();
    if (!m_pasteboard.watches()) {
        const double interval = std::max(m_defaults.number(QStringLiteral("clip-interval")).valueOr(0.5), 0.1);
        m_timer = Job::start([this, interval](CancelToken token) { return poll(interval, std::move(token)); },
                             QStringLiteral("Watching the clipboard"));
    }
}

QCoro::Task<void> ClipboardHistory::poll(double interval, CancelToken token)
{
    QPointer<ClipboardHistory> self(this);
    for (;;) {
        const bool waited = co_await m_clock.sleep(interval, token);
        if (!waited || !self)
            co_return;
        check();
    }
}

QCoro::Task<void> ClipboardHistory::later(double seconds, CancelToken token)
{
    QPointer<ClipboardHistory> self(this);
    const bool waited = co_await m_clock.sleep(seconds, token);
    if (waited && self)
        check();
}

void ClipboardHistory::check()
{
    if (!m_enabled || !m_store)
        return;
    const qint64 count = m_pasteboard.changeCount();
    if (count == m_changeCount)
        return;
    // A storm of changes is read at most ten times a second; what is on the
    // clipboard when the storm has passed is read then.
    const double now = m_clock.uptime();
    while (!m_captureTimes.empty() && now - m_captureTimes.front() >= 1)
        m_captureTimes.pop_front();
    if (m_captureTimes.size() >= stormCaptures) {
        if (!m_deferred.isRunning()) {
            const double wait = 1 - (now - m_captureTimes.front());
            m_deferred = Job::start([this, wait](CancelToken token) { return later(wait, std::move(token)); },
                                    QStringLiteral("Reading the clipboard after a storm"));
        }
        return;
    }
    m_changeCount = count;
    if (m_paused)
        return;
    if (m_ignoreNext) {
        m_ignoreNext = false;
        return;
    }
    m_captureTimes.push_back(now);
    m_capture = Job::start([this, count](CancelToken token) { return capture(count, std::move(token)); },
                           QStringLiteral("Reading the clipboard"));
}

QCoro::Task<void> ClipboardHistory::capture(qint64 changeCount, CancelToken token)
{
    QPointer<ClipboardHistory> self(this);
    for (int attempt = 0;; ++attempt) {
        const Pasteboard::Offer offer = co_await m_pasteboard.offer();
        if (!self || token.isCancelled())
            co_return;
        const bool retry = attempt < int(std::size(retryDelays));
        if (offer.outcome == Pasteboard::Outcome::expired && retry) {
            const bool waited = co_await m_clock.sleep(retryDelays[attempt], token);
            if (!waited || !self)
                co_return;
            continue;
        }
        // A newer change has its own check.
        if (offer.outcome != Pasteboard::Outcome::read || offer.changeCount != changeCount)
            co_return;

        // Who copied: the owner's process, else the window in front (asked only
        // then: it walks the desktop's entries).
        std::optional<QString> app;
        if (offer.ownerPid)
            app = m_workspace.applicationOfProcess(*offer.ownerPid);
        if (!app)
            app = m_workspace.frontmost();
        if (ClipRules::ignored(app, strings(m_defaults.array(QStringLiteral("clip-ignored-apps")).valueOr({})),
                               m_defaults.boolean(QStringLiteral("clip-only-listed-apps")).valueOr(false)))
            co_return;

        ClipRules::Settings settings;
        settings.saveText = m_defaults.boolean(QStringLiteral("clip-save-text")).valueOr(true);
        settings.saveImages = m_defaults.boolean(QStringLiteral("clip-save-images")).valueOr(true);
        settings.saveFiles = m_defaults.boolean(QStringLiteral("clip-save-files")).valueOr(true);
        settings.ignoredTypes = strings(m_defaults.array(QStringLiteral("clip-ignored-types")).valueOr({}));
        settings.ignoredPatterns = strings(m_defaults.array(QStringLiteral("clip-ignored-patterns")).valueOr({}));
        auto plan = ClipRules::plan(offer.types, settings);
        if (!plan)
            co_return;

        const Pasteboard::Reading reading = co_await m_pasteboard.fetch(changeCount, std::move(*plan));
        if (!self || token.isCancelled())
            co_return;
        if (reading.outcome == Pasteboard::Outcome::expired && retry) {
            const bool waited = co_await m_clock.sleep(retryDelays[attempt], token);
            if (!waited || !self)
                co_return;
            continue;
        }
        if (reading.outcome != Pasteboard::Outcome::read)
            co_return;
        if (auto contents = ClipRules::read(reading.items, settings))
            record(*contents, app, m_clock.now());
        co_return;
    }
}

void ClipboardHistory::record(const std::vector<ClipContent> &contents, const std::optional<QString> &app, double at)
{
    if (!m_store)
        return;
    const auto description = ClipRules::describe(contents);
    if (!description)
        return;
    for (Clip &clip : m_clips) {
        if (clip.key == description->key) {
            clip.last = at;
            clip.copies += 1;
            m_store->update(clip);
            sortAndTrim();
            return;
        }
    }
    Clip clip;
    clip.kind = description->kind;
    clip.text = description->text;
    clip.app = app;
    clip.first = at;
    clip.last = at;
    clip.copies = 1;
    clip.key = description->key;
    const auto id = m_store->insert(clip, contents, true);
    if (!id)
        return;
    clip.id = *id;
    m_clips.push_back(clip);
    if (clip.kind == Clip::Kind::image && !m_recognizing && recognize) {
        m_recognizing = true;
        recognize();
    }
    sortAndTrim();
}

void ClipboardHistory::sortAndTrim()
{
    ClipRules::sort(m_clips, m_defaults.string(QStringLiteral("clip-sort")).valueOr(QStringLiteral("last")));
    const auto beyond = ClipRules::beyondLimit(m_clips, int(m_defaults.number(QStringLiteral("clip-size")).valueOr(200)));
    if (!beyond.empty())
        remove(beyond); // emits
    else
        emit clipsChanged();
}

void ClipboardHistory::recognitionDone()
{
    m_recognizing = false;
    // Pictures copied while it ran skipped their own start.
    if (m_store && recognize && !m_store->unrecognized().empty()) {
        m_recognizing = true;
        recognize();
    }
}

void ClipboardHistory::setText(qint64 id, const QString &text)
{
    Clip *clip = find(id);
    if (!clip)
        return;
    clip->text = text;
    m_titles.remove(id);
    m_foldedTitles.remove(id);
    if (m_store)
        m_store->update(*clip);
    emit clipsChanged();
}

std::vector<ClipboardHistory::Match> ClipboardHistory::search(const QString &query)
{
    std::vector<Match> out;
    if (query.isEmpty()) {
        out.reserve(m_clips.size());
        for (const Clip &clip : m_clips)
            out.push_back({clip, {}});
        return out;
    }
    std::vector<QString> titles;
    std::vector<ClipSearch::Folded> folded;
    titles.reserve(m_clips.size());
    folded.reserve(m_clips.size());
    for (const Clip &clip : m_clips) {
        titles.push_back(title(clip));
        folded.push_back(m_foldedTitles.value(clip.id));
    }
    const QString mode = m_defaults.string(QStringLiteral("clip-search")).valueOr(QStringLiteral("exact"));
    for (ClipSearch::Match &m : ClipSearch::search(query, mode, titles, folded))
        out.push_back({m_clips[m.index], std::move(m.ranges)});
    return out;
}

Clip *ClipboardHistory::find(qint64 id)
{
    for (Clip &clip : m_clips)
        if (clip.id == id)
            return &clip;
    return nullptr;
}

} // namespace zuv
