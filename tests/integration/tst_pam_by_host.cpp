// The PAM account check against the real PAM stack and the test account: a service that
// refuses by remote host sees the address the agent passes on.

#include "linux/pam_account_verifier.h"

#include <QFile>
#include <QTest>
#include <pwd.h>
#include <unistd.h>

using namespace Qt::StringLiterals;
using namespace tellwyn;

namespace {
const QString testUser = u"tellwyn-test"_s;
const QString testPassword = u"Tellwyn-Test-Passw0rd"_s;
const QString service = u"tellwyn-test-by-host"_s;
} // namespace

class TestPamByHost : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() {
        if (::getpwnam("tellwyn-test") == nullptr) {
            QSKIP("the test account tellwyn-test is missing: run scripts/setup.sh test");
        }
        const QString installed = u"/etc/pam.d/"_s + service;
        if (!QFile::exists(installed)) {
            if (::geteuid() != 0) {
                QSKIP("the PAM service tellwyn-test-by-host is missing: run scripts/setup.sh test");
            }
            QVERIFY(QFile::copy(QStringLiteral(PAM_SERVICE_FILE), installed));
        }
        if (::geteuid() != 0) {
            QSKIP("checking another account's password needs root");
        }
    }

    void theRemoteHostReachesThePamRules() {
        PamAccountVerifier verifier(u"/etc/pam.d"_s, service);
        QVERIFY(verifier.verifyPassword(testUser, testPassword, u"127.0.0.1"_s).valid);
        const AccountVerifier::Result refused =
            verifier.verifyPassword(testUser, testPassword, u"192.0.2.7"_s);
        QVERIFY(!refused.valid);
        QVERIFY(!refused.error.isEmpty());
        QVERIFY(!verifier.verifyPassword(testUser, u"wrong"_s, u"127.0.0.1"_s).valid);
    }
};

QTEST_GUILESS_MAIN(TestPamByHost)
#include "tst_pam_by_host.moc"
