#include "platform/linux/X11Pasteboard.h"

#include "platform/linux/Xcb.h"

#include <QClipboard>
#include <QDeadlineTimer>
#include <QFuture>
#include <QGuiApplication>
#include <QHash>
#include <QMimeData>
#include <QPromise>
#include <QCoro/QCoroFuture>

#include <xcb/res.h>
#include <xcb/xfixes.h>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace zuv {

namespace {

const QString plainText = QStringLiteral("text/plain;charset=utf-8");
const QString plainBare = QStringLiteral("text/plain");
const QString uriList = QStringLiteral("text/uri-list");
const QString concealed = QStringLiteral("x-kde-passwordManagerHint");

// Conversions land in properties used in turn, so that an owner still writing
// to an abandoned one cannot be taken for the answer to a later request.
constexpr int propertyCount = 8;

bool blank(const QByteArray &text) { return QString::fromUtf8(text).trimmed().isEmpty(); }

} // namespace

class X11Pasteboard::Worker {
public:
    Worker(xcb::Connection connection, X11Pasteboard *owner, std::shared_ptr<std::atomic<qint64>> count, Budgets budgets,
           quint32 ownBase, quint32 ownMask)
        : m_c(connection.connection), m_root(connection.root), m_owner(owner), m_count(std::move(count)),
          m_budgets(budgets), m_ownBase(ownBase), m_ownMask(ownMask)
    {
        m_clipboard = xcb::atom(m_c, "CLIPBOARD");
        m_targets = xcb::atom(m_c, "TARGETS");
        m_incr = xcb::atom(m_c, "INCR");
        for (int i = 0; i < propertyCount; ++i)
            m_properties[i] = xcb::atom(m_c, QByteArray("ZUV_CLIPBOARD_" + QByteArray::number(i)).constData());

        m_window = xcb_generate_id(m_c);
        const uint32_t mask = XCB_EVENT_MASK_PROPERTY_CHANGE;
        xcb_create_window(m_c, XCB_COPY_FROM_PARENT, m_window, m_root, 0, 0, 1, 1, 0, XCB_WINDOW_CLASS_INPUT_ONLY,
                          XCB_COPY_FROM_PARENT, XCB_CW_EVENT_MASK, &mask);

        const xcb_query_extension_reply_t *xfixes = xcb_get_extension_data(m_c, &xcb_xfixes_id);
        if (xfixes && xfixes->present) {
            xcb::Reply<xcb_xfixes_query_version_reply_t> version(
                xcb_xfixes_query_version_reply(m_c, xcb_xfixes_query_version(m_c, 5, 0), nullptr));
            if (version) {
                m_xfixesEvent = xfixes->first_event;
                xcb_xfixes_select_selection_input(m_c, m_window, m_clipboard,
                                                  XCB_XFIXES_SELECTION_EVENT_MASK_SET_SELECTION_OWNER
                                                      | XCB_XFIXES_SELECTION_EVENT_MASK_SELECTION_WINDOW_DESTROY
                                                      | XCB_XFIXES_SELECTION_EVENT_MASK_SELECTION_CLIENT_CLOSE);
            }
        }
        const xcb_query_extension_reply_t *res = xcb_get_extension_data(m_c, &xcb_res_id);
        m_res = res && res->present;
        xcb::Reply<xcb_get_selection_owner_reply_t> current(
            xcb_get_selection_owner_reply(m_c, xcb_get_selection_owner(m_c, m_clipboard), nullptr));
        m_selectionOwner = current ? current->owner : XCB_NONE;
        xcb_flush(m_c);

        m_wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        if (watching())
            m_thread = std::thread([this] { run(); });
    }

    ~Worker()
    {
        m_stop = true;
        wake();
        if (m_thread.joinable())
            m_thread.join();
        // Whoever still waits gets an answer.
        for (auto &task : m_tasks)
            task(true);
        if (m_wake >= 0)
            close(m_wake);
        xcb_disconnect(m_c);
    }

    bool watching() const { return m_xfixesEvent != 0 && m_wake >= 0; }

    // Runs `task` on the worker; `stopping` tells it to answer at once.
    void post(std::function<void(bool stopping)> task)
    {
        {
            std::lock_guard lock(m_mutex);
            if (!m_stop) {
                m_tasks.push_back(std::move(task));
                task = nullptr;
            }
        }
        if (task)
            task(true);
        else
            wake();
    }

    Offer offer();
    Reading fetch(qint64 count, const Plan &plan);
    void clear()
    {
        m_clearPending = true;
        xcb_set_selection_owner(m_c, XCB_NONE, m_clipboard, XCB_CURRENT_TIME);
        xcb_flush(m_c);
    }

private:
    enum class Got { data, refused, expired, changed, tooBig };
    struct Fetched {
        Got got = Got::refused;
        QByteArray bytes;
    };

    void wake() const
    {
        const uint64_t one = 1;
        if (m_wake >= 0)
            [[maybe_unused]] const auto written = ::write(m_wake, &one, sizeof one);
    }

    void run()
    {
        for (;;) {
            drain({});
            std::deque<std::function<void(bool)>> tasks;
            {
                std::lock_guard lock(m_mutex);
                if (m_stop)
                    return;
                tasks.swap(m_tasks);
            }
            for (auto &task : tasks)
                task(false);
            if (!tasks.empty())
                continue;
            if (xcb_connection_has_error(m_c))
                return;
            pollfd fds[2] = {{xcb_get_file_descriptor(m_c), POLLIN, 0}, {m_wake, POLLIN, 0}};
            ::poll(fds, 2, -1);
            if (fds[1].revents & POLLIN) {
                uint64_t value = 0;
                [[maybe_unused]] const auto read = ::read(m_wake, &value, sizeof value);
            }
        }
    }

    // Handles every event that has arrived; true when `want` took one.
    bool drain(const std::function<bool(xcb_generic_event_t *)> &want)
    {
        while (xcb_generic_event_t *event = xcb_poll_for_event(m_c)) {
            const bool taken = want && want(event);
            if (!taken)
                handle(event);
            std::free(event);
            if (taken)
                return true;
        }
        return false;
    }

    // Waits for the event `want` takes, handling all others; false on time-out,
    // stop, or a change of the clipboard meanwhile.
    bool wait(const QDeadlineTimer &deadline, const std::function<bool(xcb_generic_event_t *)> &want)
    {
        const qint64 count = m_count->load();
        for (;;) {
            if (drain(want))
                return true;
            if (m_stop || xcb_connection_has_error(m_c) || deadline.hasExpired() || m_count->load() != count)
                return false;
            // In slices, so that a stop is noticed.
            pollfd fd{xcb_get_file_descriptor(m_c), POLLIN, 0};
            ::poll(&fd, 1, int(std::min<qint64>(deadline.remainingTime(), 100)));
        }
    }

    bool ours(xcb_window_t window) const
    {
        return window != XCB_NONE && (window == m_window || (m_ownMask && (window & ~m_ownMask) == m_ownBase));
    }

    void handle(xcb_generic_event_t *event)
    {
        if (!m_xfixesEvent || (event->response_type & 0x7f) != m_xfixesEvent + XCB_XFIXES_SELECTION_NOTIFY)
            return;
        const auto *notify = reinterpret_cast<xcb_xfixes_selection_notify_event_t *>(event);
        if (notify->selection != m_clipboard)
            return;
        const bool set = notify->subtype == XCB_XFIXES_SELECTION_EVENT_SET_SELECTION_OWNER;
        m_selectionOwner = set ? notify->owner : XCB_NONE;
        // Our own writes were counted when they were made.
        bool own = set && ours(notify->owner);
        if (set && notify->owner == XCB_NONE && m_clearPending) {
            m_clearPending = false;
            own = true;
        }
        if (own)
            return;
        m_count->fetch_add(1);
        m_offerCount = -1;
        X11Pasteboard *owner = m_owner;
        QMetaObject::invokeMethod(owner, [owner] { emit owner->changed(); }, Qt::QueuedConnection);
    }

    QDeadlineTimer step(const QDeadlineTimer &capture) const
    {
        const QDeadlineTimer target(m_budgets.targetMs);
        return capture.deadline() < target.deadline() ? capture : target;
    }

    // One conversion of the clipboard to `target`, whole or not at all.
    Fetched convert(xcb_atom_t target, const QDeadlineTimer &capture, qint64 count);
    QStringList names(const std::vector<xcb_atom_t> &atoms);
    std::optional<qint64> pidOf(xcb_window_t window);

    xcb_connection_t *m_c;
    xcb_window_t m_root;
    xcb_window_t m_window = 0;
    X11Pasteboard *m_owner;
    std::shared_ptr<std::atomic<qint64>> m_count;
    Budgets m_budgets;
    quint32 m_ownBase;
    quint32 m_ownMask;
    xcb_atom_t m_clipboard = 0, m_targets = 0, m_incr = 0;
    xcb_atom_t m_properties[propertyCount] = {};
    int m_nextProperty = 0;
    uint8_t m_xfixesEvent = 0;
    bool m_res = false;

    // Worker thread only.
    xcb_window_t m_selectionOwner = XCB_NONE;
    bool m_clearPending = false;
    qint64 m_offerCount = -1; // the change the targets below belong to
    QHash<QString, xcb_atom_t> m_offered;
    QHash<xcb_atom_t, QString> m_names;

    std::thread m_thread;
    int m_wake = -1;
    std::mutex m_mutex;
    std::deque<std::function<void(bool)>> m_tasks;
    std::atomic<bool> m_stop{false};
};

X11Pasteboard::Worker::Fetched X11Pasteboard::Worker::convert(xcb_atom_t target, const QDeadlineTimer &capture,
                                                              qint64 count)
{
    const xcb_atom_t property = m_properties[m_nextProperty];
    m_nextProperty = (m_nextProperty + 1) % propertyCount;
    xcb_delete_property(m_c, m_window, property);
    xcb_convert_selection(m_c, m_window, m_clipboard, target, property, XCB_CURRENT_TIME);
    xcb_flush(m_c);

    xcb_atom_t answered = XCB_NONE;
    const bool arrived = wait(step(capture), [&](xcb_generic_event_t *event) {
        if ((event->response_type & 0x7f) != XCB_SELECTION_NOTIFY)
            return false;
        const auto *notify = reinterpret_cast<xcb_selection_notify_event_t *>(event);
        if (notify->requestor != m_window || notify->selection != m_clipboard || notify->target != target)
            return false;
        answered = notify->property;
        return true;
    });
    if (m_count->load() != count)
        return {Got::changed, {}};
    if (!arrived)
        return {Got::expired, {}};
    if (answered == XCB_NONE)
        return {Got::refused, {}};

    // The size first: nothing is downloaded that would be thrown away.
    xcb::Reply<xcb_get_property_reply_t> head(
        xcb_get_property_reply(m_c, xcb_get_property(m_c, 0, m_window, answered, XCB_GET_PROPERTY_TYPE_ANY, 0, 1), nullptr));
    if (!head)
        return {Got::refused, {}};
    if (head->type == m_incr) {
        quint32 announced = 0;
        if (xcb_get_property_value_length(head.get()) >= 4)
            memcpy(&announced, xcb_get_property_value(head.get()), 4);
        if (qint64(announced) > m_budgets.size)
            return {Got::tooBig, {}};
        QByteArray data;
        xcb_delete_property(m_c, m_window, answered); // asks for the first chunk
        xcb_flush(m_c);
        for (;;) {
            const bool chunk = wait(step(capture), [&](xcb_generic_event_t *event) {
                if ((event->response_type & 0x7f) != XCB_PROPERTY_NOTIFY)
                    return false;
                const auto *notify = reinterpret_cast<xcb_property_notify_event_t *>(event);
                return notify->window == m_window && notify->atom == answered
                    && notify->state == XCB_PROPERTY_NEW_VALUE;
            });
            if (m_count->load() != count)
                return {Got::changed, {}};
            if (!chunk)
                return {Got::expired, {}};
            xcb::Reply<xcb_get_property_reply_t> part(xcb_get_property_reply(
                m_c, xcb_get_property(m_c, 1, m_window, answered, XCB_GET_PROPERTY_TYPE_ANY, 0, UINT32_MAX / 4), nullptr));
            xcb_flush(m_c);
            if (!part)
                return {Got::expired, {}};
            const int length = xcb_get_property_value_length(part.get());
            if (length == 0)
                return {Got::data, data};
            if (data.size() + length > m_budgets.size)
                return {Got::tooBig, {}};
            data.append(static_cast<const char *>(xcb_get_property_value(part.get())), length);
        }
    }
    const qint64 size = qint64(xcb_get_property_value_length(head.get())) + head->bytes_after;
    if (size > m_budgets.size) {
        xcb_delete_property(m_c, m_window, answered);
        return {Got::tooBig, {}};
    }
    xcb::Reply<xcb_get_property_reply_t> whole(xcb_get_property_reply(
        m_c, xcb_get_property(m_c, 1, m_window, answered, XCB_GET_PROPERTY_TYPE_ANY, 0, uint32_t((size + 3) / 4)), nullptr));
    if (!whole)
        return {Got::refused, {}};
    return {Got::data, QByteArray(static_cast<const char *>(xcb_get_property_value(whole.get())),
                                  xcb_get_property_value_length(whole.get()))};
}

QStringList X11Pasteboard::Worker::names(const std::vector<xcb_atom_t> &atoms)
{
    std::vector<std::pair<xcb_atom_t, xcb_get_atom_name_cookie_t>> asked;
    for (xcb_atom_t atom : atoms)
        if (atom != XCB_NONE && !m_names.contains(atom))
            asked.push_back({atom, xcb_get_atom_name(m_c, atom)});
    for (const auto &[atom, cookie] : asked) {
        xcb::Reply<xcb_get_atom_name_reply_t> reply(xcb_get_atom_name_reply(m_c, cookie, nullptr));
        m_names.insert(atom, reply ? QString::fromUtf8(xcb_get_atom_name_name(reply.get()),
                                                       xcb_get_atom_name_name_length(reply.get()))
                                   : QString());
    }
    QStringList out;
    for (xcb_atom_t atom : atoms)
        out << m_names.value(atom);
    return out;
}

std::optional<qint64> X11Pasteboard::Worker::pidOf(xcb_window_t window)
{
    if (m_res) {
        xcb_res_client_id_spec_t spec{window, XCB_RES_CLIENT_ID_MASK_LOCAL_CLIENT_PID};
        xcb::Reply<xcb_res_query_client_ids_reply_t> reply(
            xcb_res_query_client_ids_reply(m_c, xcb_res_query_client_ids(m_c, 1, &spec), nullptr));
        if (reply) {
            for (auto it = xcb_res_query_client_ids_ids_iterator(reply.get()); it.rem; xcb_res_client_id_value_next(&it)) {
                if ((it.data->spec.mask & XCB_RES_CLIENT_ID_MASK_LOCAL_CLIENT_PID)
                    && xcb_res_client_id_value_value_length(it.data) >= 1)
                    return qint64(*xcb_res_client_id_value_value(it.data));
            }
        }
    }
    return std::nullopt;
}

Pasteboard::Offer X11Pasteboard::Worker::offer()
{
    drain({});
    const qint64 count = m_count->load();
    if (m_selectionOwner == XCB_NONE)
        return {Outcome::empty, count, {}, std::nullopt};
    const Fetched targets = convert(m_targets, QDeadlineTimer(m_budgets.targetMs), count);
    switch (targets.got) {
    case Got::changed:
        return {Outcome::changed, count, {}, std::nullopt};
    case Got::expired:
        return {Outcome::expired, count, {}, std::nullopt};
    case Got::tooBig:
        return {Outcome::tooBig, count, {}, std::nullopt};
    case Got::refused:
        return {Outcome::empty, count, {}, std::nullopt};
    case Got::data:
        break;
    }
    std::vector<xcb_atom_t> atoms(size_t(targets.bytes.size()) / 4);
    if (!atoms.empty())
        memcpy(atoms.data(), targets.bytes.constData(), atoms.size() * 4);
    const QStringList atomNames = names(atoms);
    QStringList types;
    m_offered.clear();
    xcb_atom_t utf8 = XCB_NONE;
    for (size_t i = 0; i < atoms.size(); ++i) {
        const QString &name = atomNames[qsizetype(i)];
        if (name == QLatin1String("UTF8_STRING")) {
            utf8 = atoms[i];
            continue;
        }
        // X's own targets (TARGETS, TIMESTAMP, MULTIPLE, STRING…) are no types.
        if ((!name.contains(QLatin1Char('/')) && name != concealed) || m_offered.contains(name))
            continue;
        m_offered.insert(name, atoms[i]);
        types << name;
    }
    if (utf8 != XCB_NONE && !m_offered.contains(plainText)) {
        m_offered.insert(plainText, utf8);
        types << plainText;
    }
    m_offerCount = count;
    return {Outcome::read, count, types, pidOf(m_selectionOwner)};
}

Pasteboard::Reading X11Pasteboard::Worker::fetch(qint64 count, const Plan &plan)
{
    drain({});
    if (m_count->load() != count)
        return {Outcome::changed, {}};
    if (m_offerCount != count) {
        const Offer again = offer();
        if (again.outcome != Outcome::read)
            return {again.outcome, {}};
        if (again.changeCount != count)
            return {Outcome::changed, {}};
    }
    const QDeadlineTimer capture(m_budgets.captureMs);
    Item rows;
    qint64 total = 0;
    // One failed target fails the capture: nothing partial is kept.
    auto get = [&](const QString &type) -> std::optional<Outcome> {
        const xcb_atom_t atom = m_offered.value(type);
        if (atom == XCB_NONE)
            return std::nullopt;
        const Fetched fetched = convert(atom, capture, count);
        switch (fetched.got) {
        case Got::changed:
            return Outcome::changed;
        case Got::expired:
            return Outcome::expired;
        case Got::tooBig:
            return Outcome::tooBig;
        case Got::refused:
            return std::nullopt;
        case Got::data:
            break;
        }
        total += fetched.bytes.size();
        if (total > m_budgets.size)
            return Outcome::tooBig;
        rows.push_back({type, fetched.bytes});
        return std::nullopt;
    };

    // The password managers' mark is read before anything else, and then nothing is.
    if (m_offered.contains(concealed)) {
        if (auto failed = get(concealed))
            return {*failed, {}};
        if (!rows.empty() && rows.back().data.trimmed() == "secret")
            return {Outcome::concealed, {}};
    }
    for (const QString &type : plan.fetch) {
        if (type == concealed)
            continue;
        if (auto failed = get(type))
            return {*failed, {}};
    }
    bool text = false;
    for (const PasteboardContent &row : rows)
        text = text || ((row.type == plainText || row.type == plainBare) && !blank(row.data));
    if (!text) {
        // One picture is enough: each further type is another rendering by the owner.
        for (const QString &type : plan.unlessText) {
            const size_t before = rows.size();
            if (auto failed = get(type))
                return {*failed, {}};
            if (rows.size() > before)
                break;
        }
    }
    drain({});
    if (m_count->load() != count)
        return {Outcome::changed, {}};

    // A file list becomes one item per file, the first beside the other types.
    Reading reading{Outcome::read, {Item()}};
    for (PasteboardContent &row : rows) {
        if (row.type != uriList) {
            reading.items.front().push_back(std::move(row));
            continue;
        }
        bool first = true;
        for (QByteArray line : row.data.split('\n')) {
            line = line.trimmed();
            if (line.isEmpty() || line.startsWith('#'))
                continue;
            if (first)
                reading.items.front().push_back({uriList, line});
            else
                reading.items.push_back({{uriList, line}});
            first = false;
        }
    }
    return reading;
}

X11Pasteboard::X11Pasteboard(const QByteArray &display, Budgets budgets, QObject *parent)
    : Pasteboard(parent), m_count(std::make_shared<std::atomic<qint64>>(0))
{
    const xcb::Connection connection = xcb::connect(display);
    if (!connection.connection) {
        m_problem = tr("Copies are not recorded: there is no X11 display to read the clipboard from.");
        return;
    }
    // Windows of Qt's own connection are ours: what they own, we wrote.
    quint32 base = 0;
    quint32 mask = 0;
    if (auto *x11 = qGuiApp ? qGuiApp->nativeInterface<QNativeInterface::QX11Application>() : nullptr) {
        if (xcb_connection_t *qt = x11->connection()) {
            base = xcb_get_setup(qt)->resource_id_base;
            mask = xcb_get_setup(qt)->resource_id_mask;
        }
    }
    m_worker = std::make_unique<Worker>(connection, this, m_count, budgets, base, mask);
    if (!m_worker->watching()) {
        m_worker.reset();
        m_problem = tr("Copies are not recorded: the X server does not report clipboard changes (XFixes).");
    }
}

X11Pasteboard::~X11Pasteboard() = default;

QCoro::Task<Pasteboard::Offer> X11Pasteboard::offer()
{
    if (!m_worker)
        co_return Offer{Outcome::failed, changeCount(), {}, std::nullopt};
    auto promise = std::make_shared<QPromise<Offer>>();
    QFuture<Offer> future = promise->future();
    promise->start();
    Worker *worker = m_worker.get();
    m_worker->post([worker, promise](bool stopping) {
        promise->addResult(stopping ? Offer{} : worker->offer());
        promise->finish();
    });
    co_return co_await future;
}

QCoro::Task<Pasteboard::Reading> X11Pasteboard::fetch(qint64 changeCount, Plan plan)
{
    if (!m_worker)
        co_return Reading{};
    auto promise = std::make_shared<QPromise<Reading>>();
    QFuture<Reading> future = promise->future();
    promise->start();
    Worker *worker = m_worker.get();
    m_worker->post([worker, promise, changeCount, plan](bool stopping) {
        promise->addResult(stopping ? Reading{} : worker->fetch(changeCount, plan));
        promise->finish();
    });
    co_return co_await future;
}

void X11Pasteboard::write(const std::vector<Item> &items)
{
    auto *data = new QMimeData;
    QByteArray uris;
    bool bare = false;
    for (const Item &item : items)
        for (const PasteboardContent &row : item)
            bare = bare || row.type == plainBare;
    for (const Item &item : items) {
        for (const PasteboardContent &row : item) {
            if (row.type == uriList) {
                uris += row.data.trimmed() + "\r\n";
                continue;
            }
            data->setData(row.type, row.data);
            // Qt offers text/plain as UTF8_STRING and STRING too, which most readers ask for.
            if (row.type == plainText && !bare)
                data->setData(plainBare, row.data);
        }
    }
    if (!uris.isEmpty())
        data->setData(uriList, uris);
    m_count->fetch_add(1);
    QGuiApplication::clipboard()->setMimeData(data, QClipboard::Clipboard);
}

void X11Pasteboard::clear()
{
    m_count->fetch_add(1);
    if (!m_worker)
        return;
    Worker *worker = m_worker.get();
    m_worker->post([worker](bool stopping) {
        if (!stopping)
            worker->clear();
    });
}

} // namespace zuv
