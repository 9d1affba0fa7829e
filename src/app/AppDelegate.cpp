#include "app/AppDelegate.h"

#include "link/AppModel.h"

#include <csignal>

namespace zuv {

namespace {
AppDelegate *g_shared = nullptr;
}

AppDelegate::AppDelegate(AppModel &model, QObject *parent) : QObject(parent), m_model(model)
{
    g_shared = this;
    // Until the setup window exists, the code to type and the link to scan go to app.log.
    connect(&m_model, &AppModel::pairingChanged, this, &AppDelegate::logPairing);
    connect(&m_model, &AppModel::connectedChanged, this, [this] {
        AppModel::log(m_model.connected() ? QStringLiteral("agent connected to the hub")
                                          : QStringLiteral("agent not connected to the hub"));
    });
}

AppDelegate::~AppDelegate()
{
    if (g_shared == this)
        g_shared = nullptr;
}

AppDelegate *AppDelegate::shared() { return g_shared; }

bool AppDelegate::has(const QStringList &arguments, const QString &flag) { return arguments.contains(flag); }

void AppDelegate::applicationDidFinishLaunching(const QStringList &arguments)
{
    // A child that closes its pipe must not take the app down with it.
    std::signal(SIGPIPE, SIG_IGN);

    m_model.startChildren();

    if (has(arguments, QStringLiteral("--pair")))
        m_model.startPairing();
}

void AppDelegate::applicationWillTerminate()
{
    m_model.stopChildren();
}

void AppDelegate::open(const QStringList &arguments)
{
    AppModel::log(QStringLiteral("another launch handed over: ") + arguments.mid(1).join(QLatin1Char(' ')));
    if (has(arguments, QStringLiteral("--pair")))
        m_model.startPairing();
}

void AppDelegate::showSetup()
{
    if (m_model.lastError())
        AppModel::log(*m_model.lastError());
    AppModel::log(QStringLiteral("setup: run \"zuv --pair\" to pair this computer with a Zuv account"));
}

void AppDelegate::logPairing()
{
    const auto &pairing = m_model.pairing();
    if (pairing.state == AppModel::Pairing::State::showing)
        AppModel::log(QStringLiteral("pairing link ") + AppModel::pairingLink(pairing.code));
    else if (pairing.state == AppModel::Pairing::State::paired)
        AppModel::log(QStringLiteral("paired"));
    else if (pairing.state == AppModel::Pairing::State::expired)
        AppModel::log(QStringLiteral("pairing ended without a token")
                      + (m_model.lastError() ? QStringLiteral(": ") + *m_model.lastError() : QString()));
}

} // namespace zuv
