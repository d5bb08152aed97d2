// The credential store against a real Secret Service (gnome-keyring in a private D-Bus session,
// started by test_keyring.py), and without one.

#include "linux/secret_service_credential_store.h"

#include <QTest>
#include <QThread>

using namespace Qt::StringLiterals;
using namespace tellwyn;

namespace {

// Asks, and waits a minute for the answer, which must come after the call returned and on this
// thread; anything else fails the test.
template <typename Answer>
Answer awaitAnswer(const std::function<void(QObject*, std::function<void(const Answer&)>)>& ask) {
    QObject context;
    std::optional<Answer> answer;
    ask(&context, [&](const Answer& value) {
        QCOMPARE(QThread::currentThread(), context.thread());
        answer = value;
    });
    QTest::qVerify(!answer, "!answer", "answered inside the call", __FILE__, __LINE__);
    QTest::qVerify(QTest::qWaitFor([&] { return answer.has_value(); }, 60000), "answer",
                   "no answer within a minute", __FILE__, __LINE__);
    return answer.value_or(Answer());
}

HLVPCredentialStore::Lookup read(HLVPCredentialStore& store) {
    return awaitAnswer<HLVPCredentialStore::Lookup>(
        [&](QObject* c, auto done) { store.agentLockPassword(c, done); });
}

std::optional<QString> save(HLVPCredentialStore& store, const QString& password) {
    return awaitAnswer<std::optional<QString>>(
        [&](QObject* c, auto done) { store.saveAgentLockPassword(password, c, done); });
}

} // namespace

class TestKeyringStore : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void storesReadsBackAndOverwrites() {
        SecretServiceCredentialStore store;
        const auto empty = read(store);
        QVERIFY2(!empty.error, qPrintable(empty.error.value_or(QString())));
        QVERIFY(!empty.password); // nothing stored yet: none, not an error

        QCOMPARE(save(store, u"first pässword"_s), std::nullopt);
        QCOMPARE(read(store).password, std::optional<QString>(u"first pässword"_s));
        // An answer whose asker has gone is dropped, not delivered to a dead object.
        auto gone = std::make_unique<QObject>();
        bool delivered = false;
        store.saveAgentLockPassword(u"second"_s, gone.get(), [&](const auto&) { delivered = true; });
        gone.reset();
        QCOMPARE(read(store).password, std::optional<QString>(u"second"_s));
        QVERIFY(!delivered);
        // A new store object reads what the keyring holds, not a copy of its own.
        SecretServiceCredentialStore another;
        QCOMPARE(read(another).password, std::optional<QString>(u"second"_s));
    }

    void withoutAKeyringEveryCallFailsWithAReason() {
        SecretServiceCredentialStore store;
        const auto lookup = read(store);
        QVERIFY(lookup.error && !lookup.error->isEmpty());
        QVERIFY(!lookup.password);
        const auto saved = save(store, u"x"_s);
        QVERIFY(saved && !saved->isEmpty());
    }
};

QTEST_GUILESS_MAIN(TestKeyringStore)
#include "tst_keyring_store.moc"
