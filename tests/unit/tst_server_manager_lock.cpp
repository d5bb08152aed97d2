// The menu-lock password (its keyring copy, the move of an older plain copy, the waits after
// wrong entries) and launch at login, with fakes and virtual time.

#include "log_lines.h"
#include "manager_fixture.h"

#include <QTest>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;
using namespace tellwyn;
using namespace tellwyn::testing;

class TestServerManagerLock : public QObject, ManagerFixture {
    Q_OBJECT

    // A manager whose settings have been loaded, with the keyring and launch at login.
    void start(bool withKeyring = true) {
        AgentEnvironment environment = fakeEnvironment();
        environment.credentialStore = withKeyring ? &keyring : nullptr;
        environment.loginItem = &loginItem;
        startManager(environment);
    }

    QString lockPassword() const { return manager->settingsState().serverPassword; }

private Q_SLOTS:
    void initTestCase() { ServerLogManager::shared().setEchoToStandardOutput(false); }

    void init() { resetFakes(); }

    void cleanup() { manager.reset(); }

    void wrongEntriesWaitLongerEachTimeUpToThirtySeconds() {
        keyring.stored = u"sesame"_s;
        start();
        QCOMPARE(lockPassword(), u"sesame"_s);
        QVERIFY(!manager->verifyLockPassword(u"wrong"_s));
        QCOMPARE(manager->uiLockFailures(), 1);
        // Within the wait even the right password is refused, unchecked and uncounted.
        time->advance(999ms);
        QVERIFY(!manager->verifyLockPassword(u"sesame"_s));
        QVERIFY(!manager->verifyLockPassword(u"wrong"_s));
        QCOMPARE(manager->uiLockFailures(), 1);
        QCOMPARE(manager->uiLockBlockedUntil(), time->now().addMSecs(1));

        const QList<qint64> waits{2, 4, 8, 16, 30, 30, 30, 30, 30};
        for (const qint64 wait : waits) {
            time->advance(60s);
            QVERIFY(!manager->verifyLockPassword(u"wrong"_s));
            QCOMPARE(manager->uiLockBlockedUntil(), time->now().addSecs(wait));
        }
        QCOMPARE(manager->uiLockFailures(), 10);
        time->advance(30s);
        QVERIFY(manager->verifyLockPassword(u"sesame"_s));
        QCOMPARE(manager->uiLockFailures(), 0);
        QVERIFY(manager->verifyLockPassword(u"sesame"_s));
    }

    void passwordsMustMatchExactly_data() {
        QTest::addColumn<QString>("stored");
        QTest::addColumn<QString>("entered");
        QTest::addColumn<bool>("accepted");
        QTest::newRow("same") << u"pässword"_s << u"pässword"_s << true;
        QTest::newRow("longer entry") << u"abc"_s << u"abcd"_s << false;
        QTest::newRow("differs in case") << u"Secret"_s << u"secret"_s << false;
        QTest::newRow("no password stored") << QString() << u"anything"_s << false;
        QTest::newRow("lengths differ by 256") << QString(256, u'a') << QString() << false;
    }

    void passwordsMustMatchExactly() {
        QFETCH(QString, stored);
        QFETCH(QString, entered);
        QFETCH(bool, accepted);
        keyring.stored = stored;
        start();
        QCOMPARE(manager->verifyLockPassword(entered), accepted);
    }

    void anOlderPlainCopyMovesToTheKeyringOnceItCan() {
        preferences.set(u"ServerPassword"_s, u"legacy"_s);
        keyring.failure = u"The keyring is locked."_s;
        start();
        // Not moved, but it works from memory for this run, and the copy stays for the next try.
        QCOMPARE(lockPassword(), u"legacy"_s);
        QVERIFY(preferences.values.contains(u"ServerPassword"_s));
        QVERIFY(
            loggedLines().contains(u"[ERROR] Agent password migration deferred: The keyring is locked."_s));

        keyring.failure.reset();
        ServerLogManager::shared().clearLogs();
        start();
        QCOMPARE(keyring.stored, std::optional<QString>(u"legacy"_s));
        QVERIFY(!preferences.values.contains(u"ServerPassword"_s));
        QVERIFY(loggedLines().contains(u"[AUTH] Migrated agent UI-lock password to the keyring"_s));
        QCOMPARE(lockPassword(), u"legacy"_s);

        // Later starts read the keyring; when it cannot be read the lock password is empty.
        keyring.failure = u"No keyring."_s;
        start();
        QCOMPARE(lockPassword(), QString());
        QVERIFY(loggedLines().contains(u"[ERROR] Agent password migration deferred: No keyring."_s));
    }

    void withoutADesktopSessionThereIsNoKeyringAndNoError() {
        preferences.set(u"ServerPassword"_s, u"legacy"_s);
        start(false);
        QCOMPARE(lockPassword(), u"legacy"_s);
        QVERIFY(preferences.values.contains(u"ServerPassword"_s));
        QCOMPARE(
            loggedLines().filter(u"keyring"_s, Qt::CaseInsensitive),
            QStringList(
                {u"[INFO] No desktop session: no keyring for the lock password and no window to lock"_s}));
    }

    void aKeyringAnswerThatArrivesLateStillCounts() {
        keyring.stored = u"sesame"_s;
        keyring.holdAnswers = true;
        start();
        // Until the keyring answers no entry opens the lock, and none counts as a failure.
        QVERIFY(!manager->verifyLockPassword(QString()) && !manager->verifyLockPassword(u"sesame"_s));
        QCOMPARE(manager->uiLockFailures(), 0);
        // A save the keyring refuses meanwhile does not void the read, even when it answers first.
        keyring.failure = u"denied"_s;
        manager->updateLockPassword(u"other"_s);
        keyring.failure.reset();
        keyring.releaseAnswers(true);
        VirtualTime::drainEvents();
        QVERIFY(manager->verifyLockPassword(u"sesame"_s));

        // A password set while the read is on its way wins, even when the read answers last.
        keyring.holdAnswers = true;
        start();
        manager->updateLockPassword(u"newer"_s);
        keyring.releaseAnswers(true);
        VirtualTime::drainEvents();
        QCOMPARE(lockPassword(), u"newer"_s);
    }

    void changingThePasswordKeepsTheOldOneWhenTheKeyringRefuses() {
        keyring.stored = u"old"_s;
        start();
        keyring.failure = u"denied"_s;
        manager->updateLockPassword(u"new"_s);
        VirtualTime::drainEvents();
        QCOMPARE(lockPassword(), u"old"_s);
        QVERIFY(loggedLines().contains(u"[ERROR] Failed to update agent UI-lock password: denied"_s));
        keyring.failure.reset();
        manager->updateLockPassword(QString()); // no rule on content: empty is stored too
        VirtualTime::drainEvents();
        QCOMPARE(keyring.stored, std::optional<QString>(QString()));
        QVERIFY(loggedLines().contains(u"[AUTH] Agent UI-lock password updated in the keyring"_s));
        QVERIFY(!preferences.values.contains(u"ServerPassword"_s));
    }

    void theLockSwitchIsStoredAndLogged() {
        start();
        manager->setPasswordProtection(true);
        QVERIFY(manager->settingsState().passwordProtectionEnabled);
        QCOMPARE(preferences.values.value(u"PasswordProtectionEnabled"_s), QVariant(true));
        manager->setPasswordProtection(false);
        QVERIFY(loggedInOrder(
            {u"[AUTH] Password protection enabled"_s, u"[AUTH] Password protection disabled"_s}));
        start();
        QVERIFY(!manager->settingsState().passwordProtectionEnabled);
    }

    void loginItemFailuresAreOnlyLogged() {
        start();
        manager->registerLoginItem();
        QVERIFY(loginItem.registered);
        manager->unregisterLoginItem();
        QVERIFY(!loginItem.registered);
        loginItem.failure = u"AutostartError.writeFailed(path: \"x\", reason: \"disk full\")"_s;
        manager->registerLoginItem();
        QVERIFY(loggedInOrder(
            {u"[SERVER] Registered the autostart entry for launch at login"_s,
             u"[SERVER] Removed the autostart entry"_s,
             u"[ERROR] Failed to register the autostart entry: AutostartError.writeFailed(path: "
             u"\"x\", reason: \"disk full\")"_s}));
    }
};

QTEST_GUILESS_MAIN(TestServerManagerLock)
#include "tst_server_manager_lock.moc"
