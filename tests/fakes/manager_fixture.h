#pragma once

// The agent core on fakes of every platform seam and virtual time, without a network: what the
// unit tests of the manager's settings, lock, permissions and life, and of the windows, share.

#include "fake_platform.h"
#include "fake_services.h"
#include "server_log_manager.h"
#include "server_manager.h"
#include "virtual_time.h"

#include <QTemporaryDir>
#include <memory>

namespace tellwyn::testing {

class ManagerFixture {
public:
    ManagerFixture() { resetFakes(); }

    std::unique_ptr<VirtualTime> time;
    FakePreferences preferences;
    FakeSystemIdentity identity;
    FakeDisplayProbe displays;
    FakeSystemEvents events;
    FakePermissionService permissions;
    FakeCredentialStore keyring;
    FakeLoginItem loginItem;
    QTemporaryDir data;
    std::unique_ptr<QuietAgentServices> services; // statistics and an advertiser that publish nothing
    std::unique_ptr<ServerManager> manager;

    // Fresh fakes, an empty log and a new clock for the next test.
    void resetFakes() {
        manager.reset();
        time = std::make_unique<VirtualTime>();
        services = std::make_unique<QuietAgentServices>(*time, identity);
        preferences = FakePreferences();
        identity = FakeSystemIdentity();
        displays = FakeDisplayProbe();
        permissions = FakePermissionService();
        keyring = FakeCredentialStore();
        loginItem = FakeLoginItem();
        ServerLogManager::shared().clearLogs();
        VirtualTime::drainEvents();
    }

    // The fakes above, listening on loopback only; `advertiser` replaces the quiet one.
    // The permission service, keyring and autostart entry are the tests' to give.
    AgentEnvironment fakeEnvironment(ServiceAdvertiser* advertiser = nullptr) {
        AgentEnvironment environment{
            *time,      *time,  preferences,     identity,
            displays,   events, services->stats, advertiser != nullptr ? *advertiser : services->advertiser,
            data.path()};
        environment.listenAddress = QHostAddress(QHostAddress::LocalHost);
        return environment;
    }

    // A manager whose settings have been loaded, as at every start.
    ServerManager& startManager(AgentEnvironment environment) {
        manager.reset();
        manager = std::make_unique<ServerManager>(std::move(environment));
        VirtualTime::drainEvents(); // the settings load in a queued step,
        VirtualTime::drainEvents(); // and the keyring answers that step in a queued call of its own
        return *manager;
    }
};

} // namespace tellwyn::testing
