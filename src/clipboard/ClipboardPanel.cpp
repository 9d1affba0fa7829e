#include "clipboard/ClipboardPanel.h"

#include "base/Clock.h"
#include "base/Defaults.h"
#include "base/Log.h"

#include <QJsonArray>
#include <QPointer>
#include <QRegularExpression>

#include <algorithm>

namespace zuv {

namespace {

constexpr Qt::KeyboardModifiers held = Qt::ShiftModifier | Qt::ControlModifier | Qt::AltModifier | Qt::MetaModifier;

// X key codes of the digit keys 1 to 9, on the top row and on the keypad.
constexpr quint32 topRow[] = {10, 11, 12, 13, 14, 15, 16, 17, 18};
constexpr quint32 keypad[] = {87, 88, 89, 83, 84, 85, 79, 80, 81};

std::optional<int> digit(const ClipboardPanel::Key &key)
{
    for (int i = 0; i < 9; ++i)
        if (key.scanCode && (key.scanCode == topRow[i] || key.scanCode == keypad[i]))
            return i + 1;
    if (key.key >= Qt::Key_1 && key.key <= Qt::Key_9)
        return key.key - Qt::Key_1 + 1;
    return std::nullopt;
}

} // namespace

ClipboardPanel::ClipboardPanel(Clock &clock, Defaults &defaults, ClipboardHistory &history, QObject *parent)
    : QObject(parent), m_clock(clock), m_defaults(defaults), m_history(history)
{
    connect(&m_history, &ClipboardHistory::clipsChanged, this, [this] {
        if (window && window->isVisible()) {
            fit();
            emit changed();
        }
    });
}

ClipboardPanel::~ClipboardPanel() = default;

std::vector<ClipboardHistory::Match> ClipboardPanel::visible()
{
    std::vector<ClipboardHistory::Match> pinned;
    std::vector<ClipboardHistory::Match> others;
    for (ClipboardHistory::Match &m : m_history.search(m_state.query))
        (m.clip.pin ? pinned : others).push_back(std::move(m));
    const bool bottom = m_defaults.string(QStringLiteral("clip-pins")).valueOr(QStringLiteral("top")) == QLatin1String("bottom");
    std::vector<ClipboardHistory::Match> &first = bottom ? others : pinned;
    std::vector<ClipboardHistory::Match> &second = bottom ? pinned : others;
    first.insert(first.end(), std::make_move_iterator(second.begin()), std::make_move_iterator(second.end()));
    return std::move(first);
}

std::optional<Clip> ClipboardPanel::current(const std::vector<ClipboardHistory::Match> &visible) const
{
    if (m_state.selected) {
        for (const auto &m : visible)
            if (m.clip.id == *m_state.selected)
                return m.clip;
    }
    for (const auto &m : visible)
        if (!m.clip.pin)
            return m.clip;
    if (!visible.empty())
        return visible.front().clip;
    return std::nullopt;
}

std::optional<int> ClipboardPanel::number(qint64 id, const std::vector<ClipboardHistory::Match> &visible)
{
    int n = 0;
    for (const auto &m : visible) {
        if (m.clip.pin)
            continue;
        if (++n > 9)
            return std::nullopt;
        if (m.clip.id == id)
            return n;
    }
    return std::nullopt;
}

std::optional<ClipboardPanel::Use> ClipboardPanel::action(Qt::KeyboardModifiers modifiers, bool p, bool l)
{
    const Qt::KeyboardModifiers m = modifiers & held;
    if (m == Qt::NoModifier)
        return Use{p, l};
    if (m == Qt::AltModifier)
        return Use{!p, !p ? l : false};
    if (m == Qt::ControlModifier)
        return Use{p, p ? l : false};
    if (m == (Qt::AltModifier | Qt::ShiftModifier))
        return p ? std::nullopt : std::optional<Use>(Use{true, !l});
    if (m == (Qt::ControlModifier | Qt::ShiftModifier))
        return p ? std::optional<Use>(Use{true, !l}) : std::nullopt;
    return std::nullopt;
}

void ClipboardPanel::setQuery(const QString &query)
{
    if (query == m_state.query)
        return;
    m_state.query = query;
    m_state.selected.reset();
    m_state.scrollTarget = -1;
    fit();
    selectionChanged();
    emit changed();
}

void ClipboardPanel::setFlags(Qt::KeyboardModifiers flags)
{
    flags &= Qt::ShiftModifier | Qt::ControlModifier | Qt::AltModifier;
    if (flags == m_state.flags)
        return;
    m_state.flags = flags;
    emit changed();
}

void ClipboardPanel::toggle()
{
    if (window && window->isVisible())
        close();
    else
        show();
}

void ClipboardPanel::show()
{
    if (!m_history.enabled())
        return;
    if (!window) {
        log(QStringLiteral("clipboard panel: there is no window to show"));
        return;
    }
    m_previewTask.cancel();
    m_state.query.clear();
    m_state.selected.reset();
    m_state.keyboard = true;
    m_state.scrollTarget = -1;
    m_state.previewOpen = false;
    m_state.previewSuppressed = false;
    m_state.flags = {};
    m_state.generation += 1;

    double width = 450;
    double height = 800;
    const QJsonArray saved = m_defaults.array(QStringLiteral("clip-panel-size")).valueOr({});
    if (saved.size() == 2 && saved[0].isDouble() && saved[1].isDouble()) {
        width = std::max(saved[0].toDouble(), 300.0);
        height = std::max(saved[1].toDouble(), 200.0);
    }
    const QSize size(int(width), int(fittingHeight(height)));
    m_desktop = desktop ? desktop() : PanelDesktop{};
    if (rememberFront)
        rememberFront();
    window->present(QRect(origin(size, m_desktop), size));
    emit shown();
    selectionChanged();
    emit changed();
}

void ClipboardPanel::close()
{
    if (!window || !window->isVisible())
        return;
    m_previewTask.cancel();
    window->hidePreview();
    window->hide();
    if (restoreFront)
        restoreFront();
}

void ClipboardPanel::focusLost()
{
    if (m_holding || !window || !window->isVisible())
        return;
    // The person went elsewhere: the keyboard stays where they took it.
    m_previewTask.cancel();
    window->hidePreview();
    window->hide();
}

std::optional<Clip> ClipboardPanel::shortcutItem(const std::vector<ClipboardHistory::Match> &visible, const Key &key) const
{
    if (const auto n = digit(key)) {
        int count = 0;
        for (const auto &m : visible)
            if (!m.clip.pin && ++count == *n)
                return m.clip;
        return std::nullopt;
    }
    if (key.key >= Qt::Key_A && key.key <= Qt::Key_Z) {
        const QString letter = QString(QChar(key.key)).toLower();
        for (const auto &m : visible)
            if (m.clip.pin == letter)
                return m.clip;
    }
    return std::nullopt;
}

bool ClipboardPanel::handle(const Key &key)
{
    if (key.composing)
        return false;
    const Qt::KeyboardModifiers m = key.modifiers & held;
    const bool none = m == Qt::NoModifier;
    const bool ctrl = m == Qt::ControlModifier;
    const bool alt = m == Qt::AltModifier;
    const bool paste = m_defaults.boolean(QStringLiteral("clip-paste")).valueOr(false);
    const bool plain = m_defaults.boolean(QStringLiteral("clip-plain")).valueOr(false);
    const int k = key.key;

    if (k == Qt::Key_Return || k == Qt::Key_Enter) {
        const auto rows = visible();
        if (const auto clip = current(rows))
            use(*clip, key.modifiers);
        return true;
    }
    if (k == Qt::Key_Escape) {
        close();
        return true;
    }
    const auto go = [this](Move to) {
        move(visible(), to);
        return true;
    };
    if (k == Qt::Key_Down && none)
        return go(Move::next);
    if (k == Qt::Key_Down && (m & (Qt::AltModifier | Qt::ControlModifier)))
        return go(Move::last);
    if ((k == Qt::Key_J || k == Qt::Key_N) && ctrl)
        return go(Move::next);
    if (k == Qt::Key_Up && none)
        return go(Move::previous);
    if (k == Qt::Key_Up && (m & (Qt::AltModifier | Qt::ControlModifier)))
        return go(Move::first);
    if ((k == Qt::Key_K || k == Qt::Key_P) && ctrl)
        return go(Move::previous);
    if ((k == Qt::Key_End || k == Qt::Key_PageDown) && none)
        return go(Move::last);
    if ((k == Qt::Key_Home || k == Qt::Key_PageUp) && none)
        return go(Move::first);
    if ((k == Qt::Key_Delete || k == Qt::Key_Backspace) && alt) {
        const auto rows = visible();
        if (const auto clip = current(rows))
            remove(*clip, rows);
        return true;
    }
    if (k == Qt::Key_Backspace && m == (Qt::AltModifier | Qt::ControlModifier)) {
        confirmClear(false);
        return true;
    }
    if (k == Qt::Key_Backspace && m == (Qt::ShiftModifier | Qt::AltModifier | Qt::ControlModifier)) {
        confirmClear(true);
        return true;
    }
    if (k == Qt::Key_H && ctrl) {
        setQuery(m_state.query.chopped(m_state.query.isEmpty() ? 0 : 1));
        return true;
    }
    if (k == Qt::Key_W && ctrl) {
        static const QRegularExpression trailing(QStringLiteral("\\s+$"));
        QString q = m_state.query;
        q.remove(trailing);
        qsizetype end = q.size();
        while (end > 0 && !q.at(end - 1).isSpace())
            --end;
        setQuery(q.left(end));
        return true;
    }
    if (k == Qt::Key_U && ctrl) {
        setQuery(QString());
        return true;
    }
    if (k == Qt::Key_Space && ctrl) {
        togglePreview();
        return true;
    }
    if (k == Qt::Key_P && alt) {
        const auto rows = visible();
        if (const auto clip = current(rows))
            m_history.togglePin(clip->id);
        setQuery(QString());
        emit changed();
        return true;
    }
    if (k == Qt::Key_Comma && ctrl) {
        openSettings();
        return true;
    }
    if ((k == Qt::Key_W || k == Qt::Key_Q) && ctrl) {
        close();
        return true;
    }
    if (none)
        return false;
    const bool rowKeys = alt || ctrl || (m == (Qt::AltModifier | Qt::ShiftModifier) && !paste)
        || (m == (Qt::ControlModifier | Qt::ShiftModifier) && paste);
    if (rowKeys) {
        const auto rows = visible();
        if (const auto clip = shortcutItem(rows, key)) {
            if (const auto how = action(key.modifiers, paste, plain)) {
                finishUse(*clip, *how);
                return true;
            }
        }
    }
    return false;
}

void ClipboardPanel::move(const std::vector<ClipboardHistory::Match> &visible, Move to)
{
    if (visible.empty())
        return;
    const auto now = current(visible);
    qsizetype index = -1;
    for (size_t i = 0; i < visible.size(); ++i)
        if (now && visible[i].clip.id == now->id)
            index = qsizetype(i);
    const qsizetype last = qsizetype(visible.size()) - 1;
    qsizetype next = 0;
    switch (to) {
    case Move::next:
        next = index < 0 ? std::min<qsizetype>(1, last) : std::min(index + 1, last);
        break;
    case Move::previous:
        next = std::max<qsizetype>(index - 1, 0);
        break;
    case Move::last:
        next = last;
        break;
    case Move::first:
        next = 0;
        break;
    }
    m_state.keyboard = true;
    m_state.selected = visible[size_t(next)].clip.id;
    m_state.scrollTarget = m_state.selected;
    selectionChanged();
    emit changed();
}

void ClipboardPanel::hover(qint64 id)
{
    if (m_state.keyboard || m_state.selected == id)
        return;
    m_state.selected = id;
    selectionChanged();
    emit changed();
}

void ClipboardPanel::mouseMoved() { m_state.keyboard = false; }

void ClipboardPanel::remove(const Clip &clip, const std::vector<ClipboardHistory::Match> &visible)
{
    for (size_t i = 0; i < visible.size(); ++i) {
        if (visible[i].clip.id != clip.id)
            continue;
        if (i + 1 < visible.size())
            m_state.selected = visible[i + 1].clip.id;
        else if (i > 0)
            m_state.selected = visible[i - 1].clip.id;
        else
            m_state.selected.reset();
    }
    m_history.remove({clip.id});
    fit();
    selectionChanged();
    emit changed();
}

void ClipboardPanel::confirmClear(bool all)
{
    if (m_defaults.boolean(QStringLiteral("clip-confirm-clear")).valueOr(true) && window) {
        m_holding = true;
        const auto [clear, suppress] =
            all ? window->confirm(tr("Clear the whole clipboard history, pinned items too?"),
                                  tr("Everything in the list is deleted."))
                : window->confirm(tr("Clear the clipboard history?"), tr("Pinned items stay."));
        m_holding = false;
        if (suppress)
            m_defaults.set(QStringLiteral("clip-confirm-clear"), false);
        if (!clear) {
            if (window->isVisible())
                window->present(window->frame());
            return;
        }
    }
    m_history.clear(all);
    close();
}

void ClipboardPanel::togglePreview()
{
    if (m_state.previewOpen) {
        m_state.previewOpen = false;
        m_state.previewSuppressed = true;
    } else {
        m_state.previewOpen = true;
    }
    updatePreview();
}

void ClipboardPanel::openSettings()
{
    close();
    m_defaults.set(QStringLiteral("settings-tab"), QStringLiteral("clipboard"));
    if (settings)
        settings();
}

void ClipboardPanel::use(const Clip &clip, Qt::KeyboardModifiers modifiers)
{
    const auto how = action(modifiers, m_defaults.boolean(QStringLiteral("clip-paste")).valueOr(false),
                            m_defaults.boolean(QStringLiteral("clip-plain")).valueOr(false));
    if (how)
        finishUse(clip, *how);
}

void ClipboardPanel::paste(const Clip &clip, bool plain) { finishUse(clip, Use{true, plain}); }

void ClipboardPanel::finishUse(const Clip &clip, Use how)
{
    close();
    m_history.copy(clip, how.plain);
    if (!how.paste)
        return;
    if (!m_history.poster || !m_history.poster->canPost()) {
        if (message)
            message(tr("Copied. Press Ctrl+V to paste it."));
        return;
    }
    m_pasteTask = Job::start([this](CancelToken token) { return pasteWhenBack(std::move(token)); },
                             QStringLiteral("Pasting into the window in front"));
}

QCoro::Task<void> ClipboardPanel::pasteWhenBack(CancelToken token)
{
    QPointer<ClipboardPanel> self(this);
    // The window manager hands the keyboard back to the window the person came
    // from; the keys go there once it has.
    const bool waited = co_await m_clock.sleep(0.12, token);
    if (!waited || !self || !m_history.poster)
        co_return;
    m_history.poster->postPaste();
}

void ClipboardPanel::selectionChanged()
{
    m_previewTask.cancel();
    if (m_state.previewOpen) {
        updatePreview();
        return;
    }
    const int delay = int(m_defaults.number(QStringLiteral("clip-preview")).valueOr(500));
    if (delay < 1 || m_state.previewSuppressed)
        return;
    m_previewTask = Job::start([this, delay](CancelToken token) { return openPreviewLater(delay, std::move(token)); },
                               QStringLiteral("Opening the clip preview"));
}

QCoro::Task<void> ClipboardPanel::openPreviewLater(int milliseconds, CancelToken token)
{
    QPointer<ClipboardPanel> self(this);
    const bool waited = co_await m_clock.sleep(milliseconds / 1000.0, token);
    if (!waited || !self || token.isCancelled())
        co_return;
    if (!window || !window->isVisible() || m_state.previewSuppressed)
        co_return;
    m_state.previewOpen = true;
    updatePreview();
}

void ClipboardPanel::updatePreview()
{
    if (!window)
        return;
    if (m_state.previewOpen && window->isVisible() && current(visible()))
        placePreview();
    else
        window->hidePreview();
    emit changed();
}

QRect ClipboardPanel::screenOf(const QPoint &point, const PanelDesktop &desktop) const
{
    for (const QRect &s : desktop.screens)
        if (s.contains(point))
            return s;
    return desktop.screens.empty() ? QRect(0, 0, 1920, 1080) : desktop.screens.front();
}

void ClipboardPanel::placePreview()
{
    if (!m_state.previewOpen || !window)
        return;
    const QRect panel = window->frame();
    const QRect screen = screenOf(panel.center(), m_desktop);
    const double below = screen.y() + screen.height() - panel.y();
    m_state.previewMaxHeight = std::min(below, std::max(double(panel.height()), 560.0));
    const int gap = 6;
    const bool right = panel.x() + panel.width() + gap + 400 <= screen.x() + screen.width();
    const double room = right ? screen.x() + screen.width() - (panel.x() + panel.width() + gap) : panel.x() - gap - screen.x();
    const int width = int(std::max(std::min(room, m_state.previewWidth), 400.0));
    const int height = int(std::min(std::max(m_state.previewHeight, 80.0), m_state.previewMaxHeight));
    const int x = right ? panel.x() + panel.width() + gap : panel.x() - gap - width;
    window->showPreview(QRect(x, panel.y(), width, height));
}

double ClipboardPanel::fittingHeight(double maximum)
{
    double height = m_defaults.boolean(QStringLiteral("clip-footer")).valueOr(true) ? 132 : 54;
    const auto rows = visible();
    const double imageHeight = m_defaults.number(QStringLiteral("clip-image-height")).valueOr(40);
    bool pinned = false;
    bool unpinned = false;
    for (size_t i = 0; i < rows.size(); ++i) {
        if (i < 60)
            height += rows[i].clip.kind == Clip::Kind::image ? std::max(24.0, imageHeight + 8) : 24;
        (rows[i].clip.pin ? pinned : unpinned) = true;
    }
    if (pinned && unpinned)
        height += 13;
    if (rows.empty())
        height += 80;
    height += 2;
    return std::clamp(height, 200.0, std::max(maximum, 200.0));
}

void ClipboardPanel::fit()
{
    if (!window || !window->isVisible())
        return;
    QRect frame = window->frame();
    double maximum = 800;
    const QJsonArray saved = m_defaults.array(QStringLiteral("clip-panel-size")).valueOr({});
    if (saved.size() == 2 && saved[1].isDouble())
        maximum = std::max(saved[1].toDouble(), 200.0);
    frame.setHeight(int(fittingHeight(maximum))); // the top edge stays
    window->setFrame(frame);
    placePreview();
}

QPoint ClipboardPanel::origin(const QSize &size, const PanelDesktop &desktop) const
{
    const QRect screen = screenOf(desktop.cursor, desktop);
    const QString where = m_defaults.string(QStringLiteral("clip-position")).valueOr(QStringLiteral("cursor"));
    QPoint at;
    const auto centredOn = [&size](const QRect &r) {
        return QPoint(r.x() + (r.width() - size.width()) / 2, r.y() + (r.height() - size.height()) / 2);
    };
    if (where == QLatin1String("window") && desktop.frontWindow) {
        at = centredOn(*desktop.frontWindow);
    } else if (where == QLatin1String("window") || where == QLatin1String("center")) {
        at = centredOn(screen);
    } else if (where == QLatin1String("last")) {
        double ax = 0.5;
        double ay = 0.8;
        const QJsonArray anchor = m_defaults.array(QStringLiteral("clip-panel-anchor")).valueOr({});
        if (anchor.size() == 2 && anchor[0].isDouble() && anchor[1].isDouble()) {
            ax = anchor[0].toDouble();
            ay = anchor[1].toDouble();
        }
        // The anchor's height is counted from the bottom of the screen.
        at = QPoint(qRound(screen.x() + screen.width() * ax - size.width() / 2.0),
                    qRound(screen.y() + screen.height() * (1 - ay)));
    } else {
        at = desktop.cursor; // the panel hangs from the pointer
    }
    at.setX(std::clamp(at.x(), screen.x(), std::max(screen.x(), screen.x() + screen.width() - size.width())));
    at.setY(std::clamp(at.y(), screen.y(), std::max(screen.y(), screen.y() + screen.height() - size.height())));
    return at;
}

void ClipboardPanel::previewFits(double height)
{
    if (std::abs(height - m_state.previewHeight) <= 0.5)
        return;
    m_state.previewHeight = height;
    placePreview();
}

void ClipboardPanel::previewWants(double width)
{
    if (std::abs(width - m_state.previewWidth) <= 0.5)
        return;
    m_state.previewWidth = width;
    placePreview();
}

void ClipboardPanel::moved(const QRect &frame)
{
    const QRect screen = screenOf(frame.center(), desktop ? desktop() : m_desktop);
    if (screen.width() <= 0 || screen.height() <= 0)
        return;
    const double ax = (frame.center().x() - screen.x()) / double(screen.width());
    const double ay = (screen.y() + screen.height() - frame.y()) / double(screen.height());
    m_defaults.set(QStringLiteral("clip-panel-anchor"), QJsonArray{ax, ay});
    placePreview();
}

void ClipboardPanel::resized(const QRect &frame)
{
    m_defaults.set(QStringLiteral("clip-panel-size"), QJsonArray{double(frame.width()), double(frame.height())});
    placePreview();
}

} // namespace zuv
