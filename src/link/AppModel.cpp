#include "link/AppModel.h"

#include "base/Clock.h"
#include "base/Defaults.h"
#include "base/Http.h"
#include "base/Json.h"
#include "base/Log.h"
#include "hub/MacAPI.h"
#include "base/Keychain.h"
#include "platform/DeviceName.h"

#include <QCoreApplication>
#include <QNetworkAccessManager>
#include <QPointer>

#include <qrencode.h>

#include "zuv_version.h"


namespace zuv {

namespace {

constexpr double pollInterval = 2;     // seconds between pairing polls
constexpr double replacedWindow = 60;  // a second replacement within this many seconds is told
constexpr double replacedSettle = 30;  // the link must hold this long before the text goes
constexpr double keychainRetry = 15;   // seconds between reads of a locked keyring

const QString pairedOwnerKey = QStringLiteral("pairedOwner");

void call(const std::function<void()> &hook)
{
    if (hook)
        hook();
}

} // namespace

AppModel::Start AppModel::Start::fromJson(const QJsonObject &o)
{
    using namespace json;
    return {required<QString>(o, QStringLiteral("code")), required<QString>(o, QStringLiteral("secret")),
            required<double>(o, QStringLiteral("expiresAt"))};
}

AppModel::Poll AppModel::Poll::fromJson(const QJsonObject &o)
{
    using namespace json;
    return {required<QString>(o, QStringLiteral("status")), optional<QString>(o, QStringLiteral("token")),
            optional<bool>(o, QStringLiteral("owner"))};
}

AppModel::AppModel(Clock &clock, Defaults &defaults, Keychain &keychain, MacAPI &api,
                   QNetworkAccessManager &network, QUrl server, Locations locations, QObject *parent)
    : QObject(parent), m_clock(clock), m_defaults(defaults), m_keychain(keychain), m_api(api), m_network(network),
      m_server(std::move(server)), m_locations(std::move(locations))
{
    // A keyring that is locked or refused us may still hold the token: stay paired
    // and read it again later, rather than send the user through pairing again.
    const bool stored = m_keychain.token() || m_keychain.problem();
    m_pairing.state = stored ? Pairing::State::paired : Pairing::State::unpaired;
    if (!m_keychain.token() && m_keychain.problem()) {
        m_keychainNote = keychainText(*m_keychain.problem());
        m_lastError = m_keychainNote;
        m_keychainRetry = Job::start([this](CancelToken token) { return readTokenAgain(std::move(token)); },
                                     QStringLiteral("Reading the agent token again"));
    }
}

QString AppModel::keychainText(const QString &why)
{
    return tr("Zuv can't read its token from the keyring (%1). Unlock the keyring and Zuv will try again.").arg(why);
}

QCoro::Task<void> AppModel::readTokenAgain(CancelToken token)
{
    QPointer<AppModel> self(this);
    for (;;) {
        // A named result: GCC 12 miscompiles some co_await inside a condition.
        const bool waited = co_await m_clock.sleep(keychainRetry, token);
        if (!waited || !self)
            co_return;
        co_await m_keychain.load();
        if (!self || token.isCancelled())
            co_return;
        if (m_keychain.problem()) {
            m_keychainNote = keychainText(*m_keychain.problem());
            setLastError(m_keychainNote);
            continue;
        }
        if (m_lastError == m_keychainNote)
            setLastError(std::nullopt);
        m_keychainNote.reset();
        if (!m_keychain.token()) {
            setPairing({Pairing::State::unpaired, {}});
            co_return;
        }
        startChildren();
        call(m_hooks.startChat);
        co_return;
    }
}

AppModel::~AppModel() = default; // the jobs cancel themselves

QUrl AppModel::defaultServer() { return QUrl(QStringLiteral(ZUV_DEFAULT_HUB)); }

QUrl AppModel::serverAddress(const Defaults &defaults)
{
    const auto stored = defaults.string(QStringLiteral("server"));
    if (!stored.present())
        return defaultServer();
    const QUrl url(stored.value, QUrl::StrictMode);
    const bool usable = url.isValid() && !url.host().isEmpty()
        && (url.scheme() == QLatin1String("https") || url.scheme() == QLatin1String("http"));
    if (!usable) {
        zuv::log(QStringLiteral("The setting \"server\" (%1) is not an http or https address; using %2.")
                     .arg(stored.value, defaultServer().toString()));
        return defaultServer();
    }
    return url;
}

QString AppModel::pairingLink(const QString &code) { return QStringLiteral("zuvkel://pair/") + code; }

QImage AppModel::qr(const QString &text)
{
    const QByteArray data = text.toUtf8();
    QRcode *code = QRcode_encodeData(int(data.size()), reinterpret_cast<const unsigned char *>(data.constData()), 0,
                                     QR_ECLEVEL_M);
    if (!code)
        return {};
    constexpr int scale = 10;
    constexpr int quiet = 1; // modules of white around the symbol, as scanners like
    const int modules = code->width + 2 * quiet;
    QImage image(modules * scale, modules * scale, QImage::Format_Grayscale8);
    image.fill(Qt::white);
    for (int y = 0; y < code->width; ++y) {
        for (int x = 0; x < code->width; ++x) {
            if (!(code->data[y * code->width + x] & 1))
                continue;
            for (int row = 0; row < scale; ++row) {
                uchar *line = image.scanLine((y + quiet) * scale + row);
                std::fill_n(line + (x + quiet) * scale, scale, uchar(0));
            }
        }
    }
    QRcode_free(code);
    return image;
}

void AppModel::log(const QString &line) { zuv::log(line); }

QString AppModel::runningTwiceText()
{
    return tr("Zuv is running twice on this computer. Quit the other copy.");
}

QString AppModel::revokedText()
{
    return tr("This computer was disconnected from your Zuv account. Pair it again to keep using it.");
}

void AppModel::setPairing(Pairing pairing)
{
    if (m_pairing == pairing)
        return;
    m_pairing = std::move(pairing);
    emit pairingChanged();
}

void AppModel::setLastError(const std::optional<QString> &error)
{
    if (m_lastError == error)
        return;
    m_lastError = error;
    emit lastErrorChanged();
}

void AppModel::setConnected(bool connected)
{
    if (m_connected == connected)
        return;
    m_connected = connected;
    emit connectedChanged();
}

template<class T>
QCoro::Task<T> AppModel::post(QString path, QJsonObject body, CancelToken cancel)
{
    QNetworkRequest request(http::appendPath(m_server, path));
    request.setRawHeader("content-type", "application/json");
    http::setTimeout(request, 60);
    const http::Reply reply =
        co_await http::send(m_network, request, "POST", json::encode(body), nullptr, std::move(cancel));
    http::requireHttp(reply);
    if (reply.status != 200)
        throw NetworkError(tr("The server returned an unexpected response (HTTP %1).").arg(reply.status));
    co_return json::decodeBody<T>(reply.body);
}

void AppModel::startPairing()
{
    m_pairTask.cancel();
    // Job::start runs the body at once, so `this` is alive here; pair() guards itself after its waits.
    m_pairTask = Job::start([this](CancelToken cancel) { return pair(std::move(cancel)); }, QStringLiteral("Pairing"));
}

QCoro::Task<void> AppModel::pair(CancelToken cancel)
{
    QPointer<AppModel> self(this);
    try {
        // Bodies are built before the co_await: GCC 12 miscompiles initializer
        // lists inside an awaited expression.
        QJsonObject startBody;
        startBody.insert(QStringLiteral("name"), deviceName());
        const Start start = co_await post<Start>(QStringLiteral("/pair/start"), startBody, cancel);
        if (!self || cancel.isCancelled())
            co_return;
        setPairing(Pairing::showing(start.code));
        log(QStringLiteral("pairing code ") + start.code);
        if (cancel.isCancelled())
            co_return;
        for (;;) {
            // A named result: GCC 12 miscompiles some co_await inside a condition.
            const bool waited = co_await m_clock.sleep(pollInterval, cancel);
            if (!waited || !self)
                co_return;
            QJsonObject pollBody;
            pollBody.insert(QStringLiteral("code"), start.code);
            pollBody.insert(QStringLiteral("secret"), start.secret);
            const Poll poll = co_await post<Poll>(QStringLiteral("/pair/poll"), pollBody, cancel);
            if (!self || cancel.isCancelled())
                co_return;
            if (poll.status == QLatin1String("paired") && poll.token) {
                m_keychainRetry.cancel();
                m_keychain.setToken(poll.token);
                m_defaults.set(pairedOwnerKey, poll.owner.value_or(false));
                setPairing({Pairing::State::paired, {}});
                startChildren();
                call(m_hooks.startChat);
                co_return;
            }
            if (poll.status == QLatin1String("expired")) {
                setPairing({Pairing::State::expired, {}});
                co_return;
            }
            if (cancel.isCancelled())
                co_return;
        }
    } catch (const std::exception &e) {
        // A cancelled pairing was ended by whoever cancelled it (unpair, revoke, a new
        // pairing), and that one has set the state: leave it alone.
        if (!self || cancel.isCancelled())
            co_return;
        setLastError(tr("Couldn't reach Zuv: %1").arg(describe(e)));
        setPairing({Pairing::State::expired, {}});
    }
}

void AppModel::unpair()
{
    m_pairTask.cancel();
    m_keychainRetry.cancel();
    m_keychain.setToken(std::nullopt);
    m_defaults.remove(pairedOwnerKey);
    call(m_hooks.stopChat);
    m_api.clearAccess();
    stopAgent(); // the screen helper stays
    setPairing({Pairing::State::unpaired, {}});
    setConnected(false);
}

void AppModel::replaced()
{
    const double now = m_clock.now();
    if (m_replacedAt && now - *m_replacedAt < replacedWindow)
        setLastError(runningTwiceText());
    m_replacedAt = now;
}

void AppModel::clearReplacedLater()
{
    // One pending wait: each "hub connected" starts the 30 seconds again.
    m_clearReplaced = Job::start([this](CancelToken token) { return clearReplacedAfterWait(std::move(token)); },
                                 QStringLiteral("Clearing the running-twice text"));
}

QCoro::Task<void> AppModel::clearReplacedAfterWait(CancelToken token)
{
    QPointer<AppModel> self(this);
    // A named result: GCC 12 miscompiles some co_await inside a condition.
    const bool waited = co_await m_clock.sleep(replacedSettle, token);
    if (!waited || !self)
        co_return;
    if (!m_connected || m_lastError != runningTwiceText())
        co_return;
    if (m_replacedAt && m_clock.now() - *m_replacedAt < replacedSettle)
        co_return;
    setLastError(std::nullopt);
}

void AppModel::revoked()
{
    unpair();
    setLastError(revokedText());
    call(m_hooks.showSetup);
}

} // namespace zuv
