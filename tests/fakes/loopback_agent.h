#pragma once

// An agent core on loopback TLS with fakes for every platform seam and virtual time, and viewers
// that connect to it in the same process.

#include "fake_platform.h"
#include "fake_services.h"
#include "hlvp_connection.h"
#include "server_manager.h"
#include "virtual_time.h"

#include <QTemporaryDir>
#include <memory>

namespace tellwyn::testing {

// A viewer on loopback that records what the agent sends it.
struct LoopbackViewer {
    std::unique_ptr<HLVPConnection> connection = std::make_unique<HLVPConnection>();
    QList<HLVPMessage> received;
    bool closed = false;
    QString key; // the agent's client key for this connection

    LoopbackViewer();

    template <typename T> const T* last() const {
        for (auto it = received.crbegin(); it != received.crend(); ++it) {
            if (const auto* message = std::get_if<T>(&*it)) {
                return message;
            }
        }
        return nullptr;
    }
    template <typename T> qsizetype count() const {
        return std::count_if(received.cbegin(), received.cend(),
                             [](const HLVPMessage& m) { return std::holds_alternative<T>(m); });
    }
};

class LoopbackAgent {
public:
    LoopbackAgent();
    ~LoopbackAgent();

    // Builds the manager and starts its server on a free loopback port; false when that failed.
    bool start();

    // Connects a viewer and waits until the agent has registered it. With a name the viewer
    // hand-shakes first; without one it only completes TLS and stays silent. `from` is the
    // loopback address the viewer connects from (any of 127.0.0.0/8).
    std::unique_ptr<LoopbackViewer> connectViewer(const std::optional<QString>& name,
                                                  const QString& from = QStringLiteral("127.0.0.1"));
    // Sends a password sign-in from `viewer`.
    static void signIn(LoopbackViewer& viewer, const QString& user, const QString& password);
    // Signs in and waits for the agent's answer; null when none came.
    static const AuthenticationResponseMessage* signInAndWait(LoopbackViewer& viewer, const QString& user,
                                                              const QString& password);

    // Lets network traffic and posted work settle, without moving virtual time.
    static void settle();

    VirtualTime time;
    FakePreferences preferences;
    FakeSystemIdentity identity;
    FakeDisplayProbe displays;
    FakeSystemEvents events;
    FakeAccountVerifier verifier;
    FakeStatsProvider stats;
    ServiceAdvertiser advertiser{std::make_unique<FakeServicePublisher>(),
                                 std::make_unique<FakeNetworkPathMonitor>(), time, identity};
    FakeSystemClipboard systemClipboard;
    PermissionService* permissions = nullptr; // set before start()
    std::function<std::unique_ptr<ScreenSource>()> makeScreenSource;
    QString screenStreamingUnavailable;
    std::function<std::unique_ptr<InputInjector>()> makeInputInjector;
    QTemporaryDir dataDirectory;
    std::unique_ptr<ServerManager> manager;
    quint16 port = 0;
};

} // namespace tellwyn::testing
