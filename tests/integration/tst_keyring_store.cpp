// The credential store against a real Secret Service (gnome-keyring in a private D-Bus session,
// started by test_keyring.py), and without one.

#include "linux/secret_service_credential_store.h"

#include <QTest>

using namespace Qt::StringLiterals;
using namespace tellwyn;

class TestKeyringStore : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void storesReadsBackAndOverwrites() {
        SecretServiceCredentialStore store;
        const auto empty = store.agentLockPassword();
        QVERIFY2(!empty.error, qPrintable(empty.error.value_or(QString())));
        QVERIFY(!empty.password); // nothing stored yet: none, not an error

        QCOMPARE(store.saveAgentLockPassword(u"first pässword"_s), std::nullopt);
        QCOMPARE(store.agentLockPassword().password, std::optional<QString>(u"first pässword"_s));
        QCOMPARE(store.saveAgentLockPassword(u"second"_s), std::nullopt);
        // A new store object reads what the keyring holds, not a copy of its own.
        SecretServiceCredentialStore another;
        QCOMPARE(another.agentLockPassword().password, std::optional<QString>(u"second"_s));
    }

    void withoutAKeyringEveryCallFailsWithAReason() {
        SecretServiceCredentialStore store(std::chrono::seconds(5));
        const auto lookup = store.agentLockPassword();
        QVERIFY(lookup.error);
        QVERIFY(!lookup.error->isEmpty());
        QVERIFY(!lookup.password);
        const auto saved = store.saveAgentLockPassword(u"x"_s);
        QVERIFY(saved && !saved->isEmpty());
    }
};

QTEST_GUILESS_MAIN(TestKeyringStore)
#include "tst_keyring_store.moc"
