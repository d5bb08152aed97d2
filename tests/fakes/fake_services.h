#pragma once

// Fakes of the agent's other seams: the account check and the statistics provider.

#include "account_verifier.h"
#include "fake_discovery.h"
#include "hlvp_credential_store.h"
#include "input_injector.h"
#include "login_item.h"
#include "screen_source.h"
#include "service_advertiser.h"
#include "system_stats_provider.h"

#include <QMetaObject>
#include <QMutex>
#include <QPointer>
#include <QSemaphore>
#include <QStringList>
#include <algorithm>
#include <atomic>
#include <functional>
#include <utility>

namespace tellwyn::testing {

// Accepts one password per user name. With `holdChecks` set, each check waits (on the
// authentication queue's thread) until the test calls release().
class FakeAccountVerifier final : public AccountVerifier {
public:
    Result verifyPassword(const QString& userName, const QString& password,
                          const QString& remoteHost) override {
        {
            QMutexLocker locker(&m_lock);
            m_checkedUsers.append(userName);
            m_checkedHosts.append(remoteHost);
        }
        ++m_started;
        if (holdChecks) {
            m_gate.acquire();
        }
        if (passwords.value(userName) == password && passwords.contains(userName)) {
            return {true, {}};
        }
        return {false, QStringLiteral("Authentication failure")};
    }

    // Lets `count` held checks finish.
    void release(int count = 1) { m_gate.release(count); }
    // Checks that have begun, held or not.
    int startedChecks() const { return m_started; }
    QStringList checkedUsers() const {
        QMutexLocker locker(&m_lock);
        return m_checkedUsers;
    }
    QStringList checkedHosts() const {
        QMutexLocker locker(&m_lock);
        return m_checkedHosts;
    }

    QHash<QString, QString> passwords{{QStringLiteral("alice"), QStringLiteral("correct horse")}};
    std::atomic<bool> holdChecks = false;

private:
    mutable QMutex m_lock;
    QStringList m_checkedUsers;
    QStringList m_checkedHosts;
    QSemaphore m_gate;
    std::atomic<int> m_started = 0;
};

// Hands out numbered records: totalMemory carries the number of the snapshot.
class FakeStatsProvider final : public SystemStatsProvider {
public:
    void makeSnapshot(QObject* context, SnapshotHandler done) override {
        SystemStatsMessage stats;
        stats.totalMemory = ++snapshots;
        QMetaObject::invokeMethod(
            context, [done = std::move(done), stats] { done(stats); }, Qt::QueuedConnection);
    }
    quint64 snapshots = 0;
};

// The statistics and the advertiser every agent core is given, for tests that look at neither.
struct QuietAgentServices {
    QuietAgentServices(Scheduler& scheduler, SystemIdentity& identity)
        : advertiser(std::make_unique<FakeServicePublisher>(), std::make_unique<FakeNetworkPathMonitor>(),
                     scheduler, identity) {}
    FakeStatsProvider stats;
    ServiceAdvertiser advertiser;
};

// A keyring in memory; `failure` makes every call fail with that text. Each call acts at once and
// answers by a queued call, as a real keyring does; while `holdAnswers` is set the answers wait
// for releaseAnswers(), which sends them in order, or the newest first as a slow keyring may.
class FakeCredentialStore final : public HLVPCredentialStore {
public:
    void agentLockPassword(QObject* context, LookupHandler done) override {
        answer(context, [done, lookup = failure ? Lookup{std::nullopt, failure}
                                                : Lookup{stored, std::nullopt}] { done(lookup); });
    }
    void saveAgentLockPassword(const QString& password, QObject* context, SaveHandler done) override {
        stored = failure ? stored : password;
        answer(context, [done, error = failure] { done(error); });
    }
    void releaseAnswers(bool newestFirst = false) {
        holdAnswers = false;
        if (newestFirst) {
            std::reverse(m_held.begin(), m_held.end());
        }
        for (const auto& [context, send] : std::exchange(m_held, {})) {
            if (context) {
                QMetaObject::invokeMethod(context, send, Qt::QueuedConnection);
            }
        }
    }
    std::optional<QString> stored;
    std::optional<QString> failure;
    bool holdAnswers = false;

private:
    void answer(QObject* context, std::function<void()> send) {
        m_held.append({context, std::move(send)});
        if (!holdAnswers) {
            releaseAnswers();
        }
    }
    QList<std::pair<QPointer<QObject>, std::function<void()>>> m_held;
};

class FakeLoginItem final : public LoginItem {
public:
    std::optional<QString> registerItem() override {
        if (!failure) {
            registered = true;
        }
        return failure;
    }
    std::optional<QString> unregisterItem() override {
        if (!failure) {
            registered = false;
        }
        return failure;
    }
    bool registered = false;
    std::optional<QString> failure;
};

// A still desktop of one colour, 128×64, for streams in unit tests.
class StillScreen final : public ScreenSource {
public:
    std::optional<Failure> start(Listener) override { return std::nullopt; }
    // Two monitors side by side.
    ScreenLayout layout() const override {
        return {
            128,
            64,
            {{0, 0, 64, 64, QStringLiteral("left"), true}, {64, 0, 64, 64, QStringLiteral("right"), false}}};
    }
    bool read(const QRect& area, PixelBuffer& into) override {
        for (int y = area.top(); y <= area.bottom(); ++y) {
            std::fill_n(into.row(y) + area.x(), area.width(), 0x336699U);
        }
        return true;
    }
    CursorImage cursor() override { return {}; }
    std::optional<QPoint> pointer() override { return QPoint(5, 5); }
};

// Records what a viewer's input would do to the desktop, one line an action, in `actions` (shared,
// so that a test still reads it after the agent has let go of the injector).
class FakeInputInjector final : public InputInjector {
public:
    explicit FakeInputInjector(std::shared_ptr<QStringList> actions) : m_actions(std::move(actions)) {}
    void setKeyMode(KeyMode mode) override {
        m_actions->append(mode == KeyMode::bySymbol ? QStringLiteral("by symbol") : QStringLiteral("by key"));
    }
    void movePointer(int x, int y) override { m_actions->append(QStringLiteral("move %1,%2").arg(x).arg(y)); }
    void setButtonPressed(Button button, bool pressed) override {
        m_actions->append(QStringLiteral("button %1 %2")
                              .arg(int(button))
                              .arg(pressed ? QStringLiteral("down") : QStringLiteral("up")));
    }
    void scroll(int horizontalSteps, int verticalSteps) override {
        m_actions->append(QStringLiteral("scroll %1,%2").arg(horizontalSteps).arg(verticalSteps));
    }
    bool pressKey(quint32 keysym, quint32 evdevCode) override {
        m_actions->append(QStringLiteral("key 0x%1/%2 down").arg(keysym, 0, 16).arg(evdevCode));
        return true;
    }
    void releaseKey(quint32 keysym, quint32 evdevCode) override {
        m_actions->append(QStringLiteral("key 0x%1/%2 up").arg(keysym, 0, 16).arg(evdevCode));
    }
    bool typeText(const QString& text) override {
        m_actions->append(QStringLiteral("type ") + text);
        return true;
    }
    void releaseAll() override { m_actions->append(QStringLiteral("release all")); }

private:
    std::shared_ptr<QStringList> m_actions;
};

} // namespace tellwyn::testing
