// Sign-in: the methods, the account check on its queue, the refusals, and the back-off and
// blocking of repeated failures, with a fake account check and virtual time.

#include "event_wait.h"
#include "log_lines.h"
#include "loopback_agent.h"
#include "server_log_manager.h"
#include "server_manager_access.h"

#include <QFile>
#include <QTest>
#include <sys/stat.h>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;
using namespace tellwyn;
using namespace tellwyn::testing;

namespace {
const QString rightPassword = u"correct horse"_s;
}

class TestServerManagerAuthentication : public QObject {
    Q_OBJECT

    std::unique_ptr<LoopbackAgent> agent;

    ServerManager& manager() { return *agent->manager; }
    ServerManagerTestAccess access() { return ServerManagerTestAccess(*agent->manager); }

    // Signs in on a new connection and waits for the answer; the refusal text, or empty on success.
    QString attempt(const QString& user, const QString& password, const QString& name = u"Viewer"_s,
                    const QString& from = u"127.0.0.1"_s) {
        auto viewer = agent->connectViewer(name, from);
        if (!viewer) {
            return u"(no connection)"_s;
        }
        const auto* answer = LoopbackAgent::signInAndWait(*viewer, user, password);
        if (!answer) {
            return u"(no answer)"_s;
        }
        // A copy: the list of received messages grows while events are processed below.
        const AuthenticationResponseMessage response = *answer;
        if (!response.success) {
            // Every refusal ends the connection.
            if (!QTest::qWaitFor([&] { return viewer->closed; }, eventDeadlineMs)) {
                return u"(left open)"_s;
            }
        }
        LoopbackAgent::settle();
        return response.success ? QString() : response.errorMessage.value_or(u"(no text)"_s);
    }

    qint64 endpointCount(const QString& user = u"alice"_s) {
        return access().endpointAuthFailures().value(u"127.0.0.1|"_s + user).count;
    }

private Q_SLOTS:
    void init() {
        agent = std::make_unique<LoopbackAgent>();
        QVERIFY(agent->start());
    }

    void cleanup() {
        agent->verifier.release(100);
        agent.reset();
    }

    void rightPasswordSignsInAndStatisticsFollowAtOnceThenEveryTenSeconds() {
        auto viewer = agent->connectViewer(u"Dana's Laptop"_s);
        QVERIFY(viewer);
        LoopbackAgent::signIn(*viewer, u"alice"_s, rightPassword);
        TRY_VERIFY(viewer->last<SystemStatsMessage>());
        const auto* response = viewer->last<AuthenticationResponseMessage>();
        QVERIFY(response && response->success);
        QVERIFY(!response->sessionToken && !response->errorMessage && !response->sequenceNumber);
        QVERIFY(manager().serverState().authenticatedClients.contains(viewer->key));
        QVERIFY(loggedInOrder({u"[AUTH] Authentication attempt from Dana's Laptop with method password"_s,
                               u"[AUTH] Processing user credential authentication for Dana's Laptop"_s,
                               u"[AUTH] Validating this computer's account credentials for Dana's Laptop"_s,
                               u"[AUTH] System authentication successful for user: alice"_s,
                               u"[AUTH] Dana's Laptop authenticated successfully"_s,
                               u"[AUTH] Authentication successful for Dana's Laptop"_s,
                               u"[CONNECTION] Dana's Laptop connection state changed to: authenticated"_s}));

        QCOMPARE(viewer->count<SystemStatsMessage>(), 1);
        agent->time.advance(9999ms);
        LoopbackAgent::settle();
        QCOMPARE(viewer->count<SystemStatsMessage>(), 1);
        agent->time.advance(1ms);
        TRY_COMPARE(viewer->count<SystemStatsMessage>(), 2);
        QCOMPARE(viewer->last<SystemStatsMessage>()->totalMemory, 2U);

        // Once the viewer leaves, the push ends with it.
        viewer->connection->disconnectFromAgent(u"bye"_s);
        TRY_VERIFY(!manager().serverState().connectedClients.contains(viewer->key));
        QVERIFY(!access().hasStatsPushTask(viewer->key));
        const quint64 taken = agent->stats.snapshots;
        agent->time.advance(30s);
        LoopbackAgent::settle();
        QCOMPARE(agent->stats.snapshots, taken);
    }

    void refusalsAnswerCloseAndAreNotCounted_data() {
        QTest::addColumn<QString>("method");
        QTest::addColumn<QVariantMap>("credentials");
        QTest::addColumn<QString>("loginName");
        QTest::addColumn<QString>("answer");
        QTest::addColumn<QString>("logLine");
        const QVariantMap full{{u"username"_s, u"alice"_s}, {u"password"_s, rightPassword}};
        QTest::newRow("no authentication")
            << u"none"_s << full << u"alice"_s
            << u"Authentication is required - no authentication method not allowed"_s
            << u"[SECURITY] Rejected no-authentication request from Viewer - authentication is required"_s;
        QTest::newRow("challenge-response")
            << u"challengeResponse"_s << full << u"alice"_s
            << u"Unsupported authentication method. Server requires username/password authentication."_s
            << u"[AUTH] Rejected unsupported challenge-response authentication from Viewer"_s;
        QTest::newRow("unknown method")
            << u"kerberos"_s << full << u"alice"_s << u"Unsupported authentication method"_s
            << u"[ERROR] Unknown authentication method: kerberos"_s;
        QTest::newRow("no password") << u"password"_s << QVariantMap{{u"username"_s, u"alice"_s}}
                                     << u"alice"_s << u"Missing username or password"_s
                                     << u"[AUTH] Missing username or password for Viewer"_s;
        QTest::newRow("account unknown")
            << u"password"_s << full << QString()
            << u"Server account information is unavailable. Sign in to this computer and try again."_s
            << u"[AUTH] Processing user credential authentication for Viewer"_s;
    }

    void refusalsAnswerCloseAndAreNotCounted() {
        QFETCH(QString, method);
        QFETCH(QVariantMap, credentials);
        QFETCH(QString, loginName);
        QFETCH(QString, answer);
        QFETCH(QString, logLine);
        if (loginName != agent->identity.login) {
            agent->identity.login = loginName;
            agent->manager.reset();
            QVERIFY(agent->start());
        }
        auto viewer = agent->connectViewer(u"Viewer"_s);
        QVERIFY(viewer);
        AuthenticationMessage message;
        message.methodName = method;
        message.method = HLVP::authenticationMethodFromString(method);
        for (auto it = credentials.cbegin(); it != credentials.cend(); ++it) {
            message.credentials.insert(it.key(), it.value().toString());
        }
        viewer->connection->send(message);
        TRY_VERIFY(viewer->closed);
        const auto* response = viewer->last<AuthenticationResponseMessage>();
        QVERIFY(response && !response->success);
        QCOMPARE(response->errorMessage, std::optional<QString>(answer));
        QVERIFY(loggedInOrder({logLine, u"[ERROR] Authentication failed for Viewer: "_s + answer,
                               u"[AUTH] Authentication failure response sent to Viewer"_s}));
        QVERIFY(!manager().serverState().connectedClients.contains(viewer->key));
        QVERIFY(manager().clientComputerName(viewer->key).isEmpty());
        QVERIFY(access().endpointAuthFailures().isEmpty());
        QVERIFY(access().globalAuthFailures().isEmpty());
        QVERIFY(agent->verifier.checkedUsers().isEmpty());
    }

    void wrongPasswordsBackOffThenBlockTheEndpointUntilTheWindowEnds() {
        QCOMPARE(attempt(u"alice"_s, u"wrong"_s), u"Invalid credentials for this computer's account"_s);
        QVERIFY(
            loggedInOrder({u"[AUTH] System authentication failed for user alice: Authentication failure"_s,
                           u"[AUTH] Computer account credential validation failed for user 'alice'"_s}));
        QCOMPARE(endpointCount(), 1);
        // Within the 1 s back-off even the right password is not checked, and the refusal is not counted.
        QCOMPARE(attempt(u"alice"_s, rightPassword),
                 u"Too many failed authentication attempts. Try again later."_s);
        QVERIFY(loggedInOrder({u"[SECURITY] Authentication rate-limited for Viewer"_s}));
        QCOMPARE(endpointCount(), 1);

        // Failures 2 to 5, each after the previous wait of 1, 2, 4, 8 s.
        for (const auto wait : {1s, 2s, 4s, 8s}) {
            agent->time.advance(wait);
            QCOMPARE(attempt(u"alice"_s, u"wrong"_s), u"Invalid credentials for this computer's account"_s);
        }
        QCOMPARE(endpointCount(), 5);
        QCOMPARE(access().globalAuthFailures().value(u"user:alice"_s).count, 5);
        // The fifth failure blocks the endpoint outright: long after the 16 s back-off, still refused.
        agent->time.advance(200s);
        QCOMPARE(attempt(u"alice"_s, rightPassword),
                 u"Too many failed authentication attempts. Try again later."_s);
        // 300 s after the first failure the record has expired and the account is checked again.
        agent->time.advance(86s); // 1+2+4+8+200+86 = 301 s after the first failure
        QCOMPARE(attempt(u"alice"_s, rightPassword), QString());
        QVERIFY(access().endpointAuthFailures().isEmpty());
        QVERIFY(access().globalAuthFailures().isEmpty());
    }

    // A blocked source refused at full speed: the block and its first refusals are written in full,
    // then nothing about its connections but one line a minute with the count; another source is
    // logged as before, and so is the source itself once it may sign in again.
    void refusalsOfABlockedSourceAreSummarised() {
        for (const auto wait : {0s, 1s, 2s, 4s, 8s}) {
            agent->time.advance(wait);
            QCOMPARE(attempt(u"alice"_s, u"wrong"_s), u"Invalid credentials for this computer's account"_s);
        }
        QCOMPARE(loggedCount(
                     u"[SECURITY] 127.0.0.1 is blocked from signing in as 'alice' after 5 failed attempts"_s),
                 1);
        for (int i = 1; i <= 10; ++i) {
            QCOMPARE(attempt(u"alice"_s, rightPassword, u"Flood %1"_s.arg(i)),
                     u"Too many failed authentication attempts. Try again later."_s);
        }
        const QStringList lines = loggedLines();
        for (int i = 1; i <= 10; ++i) {
            const QString rateLimited = u"[SECURITY] Authentication rate-limited for Flood %1"_s.arg(i);
            QCOMPARE(lines.contains(rateLimited), i <= 3);
            if (i > 4) { // the fourth connection was under way when its source fell quiet
                QVERIFY2(lines.filter(u"Flood %1"_s.arg(i)).isEmpty(),
                         qPrintable(lines.filter(u"Flood"_s).join(u'\n')));
            }
        }
        QVERIFY(lines.filter(u"more sign-in attempts"_s).isEmpty()); // not before the minute is out

        QCOMPARE(attempt(u"bob"_s, u"wrong"_s, u"Other"_s, u"127.0.0.2"_s),
                 u"Invalid credentials for this computer's account"_s);
        QVERIFY(loggedInOrder({u"[AUTH] Authentication attempt from Other with method password"_s,
                               u"[AUTH] Computer account credential validation failed for user 'bob'"_s}));

        agent->time.advance(60s);
        QCOMPARE(
            loggedCount(u"[SECURITY] Refused 7 more sign-in attempts from 127.0.0.1 while it was blocked"_s),
            1);

        agent->time.advance(240s); // past the failure window: the source may sign in again
        QCOMPARE(attempt(u"alice"_s, rightPassword, u"Home"_s), QString());
        QVERIFY(loggedInOrder({u"[AUTH] Authentication attempt from Home with method password"_s,
                               u"[AUTH] Authentication successful for Home"_s}));
    }

    void userNamesAreComparedExactlyButCountedNormalised() {
        QCOMPARE(attempt(u"Alice"_s, rightPassword), u"Invalid credentials for this computer's account"_s);
        QVERIFY(loggedInOrder({u"[AUTH] Username mismatch: expected alice, got Alice"_s}));
        agent->time.advance(1s);
        QCOMPARE(attempt(u" alice\n"_s, rightPassword), u"Invalid credentials for this computer's account"_s);
        QCOMPARE(endpointCount(), 2);
        QCOMPARE(access().endpointAuthFailures().size(), 1);
        QCOMPARE(access().endpointAuthFailures().value(u"127.0.0.1|alice"_s).blockedUntil,
                 agent->time.now().addSecs(2));
        // A wrong name costs what a wrong password costs: with nothing measured yet the account
        // itself is checked once (with a password nobody has); the name sent is never checked.
        QCOMPARE(agent->verifier.checkedUsers(), QStringList{u"alice"_s});
    }

    void aSecondRequestWhileCheckingGetsNoAnswer() {
        agent->verifier.holdChecks = true;
        auto viewer = agent->connectViewer(u"Viewer"_s);
        QVERIFY(viewer);
        LoopbackAgent::signIn(*viewer, u"alice"_s, rightPassword);
        TRY_COMPARE(agent->verifier.startedChecks(), 1);
        LoopbackAgent::signIn(*viewer, u"alice"_s, rightPassword);
        TRY_VERIFY(loggedLines().contains(u"[AUTH] Authentication is already being validated for Viewer"_s));
        agent->verifier.release();
        TRY_VERIFY(viewer->last<AuthenticationResponseMessage>());
        LoopbackAgent::settle();
        QCOMPARE(viewer->count<AuthenticationResponseMessage>(), 1);
        QVERIFY(!viewer->closed);
        QCOMPARE(agent->verifier.checkedUsers().size(), 1);
    }

    void aNinthPendingCheckIsRefusedAsBusy() {
        agent->verifier.holdChecks = true;
        std::vector<std::unique_ptr<LoopbackViewer>> waiting;
        for (int i = 0; i < 8; ++i) {
            waiting.push_back(agent->connectViewer(u"Viewer %1"_s.arg(i), u"127.0.0.%1"_s.arg(i + 2)));
            QVERIFY(waiting.back());
            LoopbackAgent::signIn(*waiting.back(), u"alice"_s, rightPassword);
        }
        TRY_COMPARE(access().pendingAuthenticationCount(), 8);
        QCOMPARE(attempt(u"alice"_s, rightPassword, u"Ninth"_s),
                 u"Authentication service is busy. Try again shortly."_s);
        QVERIFY(loggedInOrder({u"[SECURITY] Authentication worker queue is full"_s}));
        // The queue runs the held checks one at a time, in order.
        agent->verifier.release(8);
        for (const auto& viewer : waiting) {
            TRY_VERIFY(viewer->last<AuthenticationResponseMessage>());
            QVERIFY(viewer->last<AuthenticationResponseMessage>()->success);
        }
        QCOMPARE(access().pendingAuthenticationCount(), 0);
    }

    void aResultForAViewerThatLeftIsDiscardedUncounted() {
        agent->verifier.holdChecks = true;
        auto viewer = agent->connectViewer(u"Viewer"_s);
        QVERIFY(viewer);
        LoopbackAgent::signIn(*viewer, u"alice"_s, u"wrong"_s);
        TRY_COMPARE(agent->verifier.startedChecks(), 1);
        viewer->connection->abort();
        TRY_VERIFY(!manager().serverState().connectedClients.contains(viewer->key));
        agent->verifier.release();
        TRY_VERIFY(loggedLines().contains(
            u"[AUTH] Discarded authentication result for disconnected client %1"_s.arg(viewer->key.left(8))));
        QVERIFY(access().endpointAuthFailures().isEmpty());
        QVERIFY(access().globalAuthFailures().isEmpty());
    }

    void failureRecordsExpireAndStayWithinTheirCap() {
        QHash<QString, AuthFailureRecord> map;
        // A record older than the window restarts at one failure and one second.
        access().recordAuthFailure(map, u"a"_s);
        access().recordAuthFailure(map, u"a"_s);
        QCOMPARE(map.value(u"a"_s).count, 2);
        agent->time.advance(301s);
        QVERIFY(!access().isAuthFailureBlocked(map.value(u"a"_s), 1));
        access().recordAuthFailure(map, u"a"_s);
        QCOMPARE(map.value(u"a"_s).count, 1);
        QCOMPARE(map.value(u"a"_s).blockedUntil, agent->time.now().addSecs(1));

        // The wait doubles up to 60 s.
        for (int i = 2; i <= 8; ++i) {
            access().recordAuthFailure(map, u"a"_s);
        }
        QCOMPARE(map.value(u"a"_s).blockedUntil, agent->time.now().addSecs(60));

        // The 513th record evicts the one with the oldest first failure.
        map.clear();
        for (int i = 0; i < 513; ++i) {
            access().recordAuthFailure(map, u"key %1"_s.arg(i));
            agent->time.advance(100ms);
        }
        QCOMPARE(map.size(), 512);
        QVERIFY(!map.contains(u"key 0"_s));
        QVERIFY(map.contains(u"key 1"_s) && map.contains(u"key 512"_s));
        // Expired records are pruned when the next failure is counted.
        agent->time.advance(400s);
        access().recordAuthFailure(map, u"fresh"_s);
        QCOMPARE(map.size(), 1);
    }

    // A check under way counts against its host and its name at once: parallel guesses from one
    // host reach the account check only as often as the host's limit allows. The check is told
    // where the guess came from.
    void parallelGuessesFromOneHostStopAtTheHostsLimit() {
        agent->verifier.holdChecks = true;
        std::vector<std::unique_ptr<LoopbackViewer>> guesses;
        for (int i = 0; i < 8; ++i) {
            guesses.push_back(agent->connectViewer(u"Guess %1"_s.arg(i)));
            QVERIFY(guesses.back());
            LoopbackAgent::signIn(*guesses.back(), u"alice"_s, u"guess %1"_s.arg(i));
        }
        for (int i = 5; i < 8; ++i) {
            TRY_VERIFY(guesses[size_t(i)]->last<AuthenticationResponseMessage>());
            QCOMPARE(guesses[size_t(i)]->last<AuthenticationResponseMessage>()->errorMessage,
                     std::optional<QString>(u"Too many failed authentication attempts. Try again later."_s));
        }
        QCOMPARE(access().pendingAuthenticationCount(), 5);
        agent->verifier.release(8);
        TRY_COMPARE(endpointCount(), 5);
        QCOMPARE(agent->verifier.startedChecks(), 5);
        QCOMPARE(agent->verifier.checkedHosts(), QStringList(5, u"127.0.0.1"_s));
    }

    // Failures others cause against the name do not lock out a host that signed in to this
    // account within 30 days, also after a restart; other hosts stay under the name's protection.
    void aHostThatSignedInLatelyIsJudgedByItsOwnRecordOnly() {
        QCOMPARE(attempt(u"alice"_s, rightPassword, u"Home"_s, u"127.0.0.1"_s), QString());
        const QString memory = agent->dataDirectory.filePath(u"signed-in-hosts.json"_s);
        struct stat status {};
        QCOMPARE(::stat(QFile::encodeName(memory).constData(), &status), 0);
        QCOMPARE(status.st_mode & 0777U, 0600U);

        const auto guessThenSignIn = [&](const QString& from) {
            agent->time.advance(61s); // past every earlier back-off
            const QString guess = attempt(u"alice"_s, u"wrong"_s, u"Guesser"_s, u"127.0.0.9"_s);
            return guess == u"Invalid credentials for this computer's account"_s
                       ? attempt(u"alice"_s, rightPassword, u"User"_s, from)
                       : u"(guess not checked: %1)"_s.arg(guess);
        };
        QCOMPARE(guessThenSignIn(u"127.0.0.1"_s), QString());
        QCOMPARE(guessThenSignIn(u"127.0.0.3"_s),
                 u"Too many failed authentication attempts. Try again later."_s);

        agent->manager.reset();
        QVERIFY(agent->start());
        QCOMPARE(guessThenSignIn(u"127.0.0.1"_s), QString());

        agent->time.advance(std::chrono::hours(24 * 30));
        QCOMPARE(guessThenSignIn(u"127.0.0.1"_s),
                 u"Too many failed authentication attempts. Try again later."_s);
    }
};

QTEST_GUILESS_MAIN(TestServerManagerAuthentication)
#include "tst_server_manager_authentication.moc"
