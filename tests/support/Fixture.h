#pragma once

#include "base/Clock.h"
#include "base/Defaults.h"
#include "hub/MacAPI.h"
#include "link/AppModel.h"
#include "base/Keychain.h"

#include "FakeSecretStore.h"
#include "Support.h"
#include "TestHub.h"

#include <QNetworkAccessManager>

#include <memory>
#include <optional>

namespace zuv::test {

// What most tests of the link and the hub client stand on: virtual time, a fresh
// home, settings, secrets in memory, the in-process hub and a MacAPI talking to
// it (or to `server`). Tests derive from it next to ::testing::Test.
struct HubFixture {
    explicit HubFixture(std::optional<QUrl> server = std::nullopt, Keychain *external = nullptr,
                        double wallStart = 1.7e9)
        : clock(wallStart), defaults(home.file("defaults.json")), ownKeychain(store), keychain(external ? *external : ownKeychain),
          serverUrl(server.value_or(hub.url())), api(clock, keychain, network, serverUrl)
    {
    }
    explicit HubFixture(Keychain &external) : HubFixture(std::nullopt, &external) {}

    // Folders without helpers: children fail to start and wait in virtual time.
    AppModel::Locations emptyLocations() const
    {
        return {home.file("helpers"), home.file("agent"), home.file("data"), home.file("logs")};
    }

    std::unique_ptr<AppModel> makeModel(std::optional<AppModel::Locations> locations = std::nullopt)
    {
        return std::make_unique<AppModel>(clock, defaults, keychain, api, network, serverUrl,
                                          locations.value_or(emptyLocations()));
    }

    TempHome home;
    TestClock clock;
    Defaults defaults;
    FakeSecretStore store;
    Keychain ownKeychain;
    Keychain &keychain;
    QNetworkAccessManager network;
    TestHub hub;
    QUrl serverUrl;
    MacAPI api;
};

} // namespace zuv::test
