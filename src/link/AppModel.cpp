#include "link/AppModel.h"

#include "base/Clock.h"
#include "base/Defaults.h"
#include "base/Log.h"
#include "hub/MacAPI.h"
#include "base/Keychain.h"
#include "link/AgentLine.h"

#include <QCoreApplication>
#include <QNetworkAccessManager>
#include <QPointer>

#include <qrencode.h>

#include "zuv_version.h"


namespace zuv {

namespace {

constexpr double replacedWindow = 60;  // a second replacement within this many seconds is told
constexpr double replacedSettle = 30;  // the link must hold this long before the text goes
constexpr double keychainRetry = 15;   // seconds between reads of a locked keyring

const QString pairedOwnerKey = QStringLiteral("pairedOwner");

} // namespace

AppModel::AppModel(Clock &clock, Defaults &defaults, Keychain &keychain, MacAPI &api, QNetworkAccessManager &network,
                   QUrl server, Locations locations, QObject *parent)
    : QObject(parent), m_clock(clock), m_defaults(defaults), m_keychain(keychain), m_api(api),
      m_server(server),
      m_children(clock, defaults, keychain, server, std::move(locations), AgentLine(*this), this),
      m_flow(clock, network, server, this)
{
    connect(&m_flow, &PairingFlow::showing, this, [this](const QString &code) { setPairing(Pairing::showing(code)); });
    connect(&m_flow, &PairingFlow::paired, this, &AppModel::paired);
    connect(&m_flow, &PairingFlow::expired, this, [this] { setPairing({Pairing::State::expired, {}}); });
    connect(&m_flow, &PairingFlow::failed, this, [this](const QString &message) {
        setLastError(message);
        setPairing({Pairing::State::expired, {}});
    });
    connect(&m_children, &ChildSupervisor::agentStateChanged, this, &AppModel::agentStateChanged);
    connect(&m_children, &ChildSupervisor::screenStateChanged, this, [this](Child::State state) {
        if (m_screenState == state)
            return;
        m_screenState = state;
        emit screenChanged();
    });
    connect(&m_children, &ChildSupervisor::childFailed, this, &AppModel::childFailed);

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
        emit chatStartWanted();
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

void AppModel::startPairing() { m_flow.start(); }

void AppModel::paired(const QString &token, bool owner)
{
    m_keychainRetry.cancel();
    m_keychain.setToken(token);
    m_defaults.set(pairedOwnerKey, owner);
    setPairing({Pairing::State::paired, {}});
    startChildren();
    emit chatStartWanted();
}

void AppModel::startChildren()
{
    // Without the token in hand (a locked keyring) the agent would meet a 401 and
    // unpair us; it starts once the token is read.
    m_children.start(m_pairing.state == Pairing::State::paired && m_keychain.token().has_value());
}

void AppModel::agentStateChanged(Child::State state)
{
    if (m_agentState != state) {
        m_agentState = state;
        emit agentChanged();
    }
    if (state == Child::State::running) {
        emit agentStarted();
        return;
    }
    setConnected(false);
    setAgentBusy(false);
    emit agentEnded();
}

void AppModel::setClaude(bool found, const std::optional<QString> &state)
{
    if (m_answers == found && m_claudeState == state)
        return;
    m_answers = found;
    m_claudeState = state;
    emit agentChanged();
}

void AppModel::setAgentBusy(bool busy)
{
    if (m_agentBusy == busy)
        return;
    m_agentBusy = busy;
    emit agentChanged();
}

void AppModel::unpair()
{
    m_flow.cancel();
    m_keychainRetry.cancel();
    m_keychain.setToken(std::nullopt);
    m_defaults.remove(pairedOwnerKey);
    emit chatStopWanted();
    m_api.clearAccess();
    m_children.stopAgent(); // the screen helper stays
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
    emit setupWanted();
}

} // namespace zuv
