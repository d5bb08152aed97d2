#include "event_wait.h"
#include "fake_network.h"
#include "update_check.h"

#include <QSignalSpy>
#include <QTest>

using namespace Qt::StringLiterals;
using namespace tellwyn;
using tellwyn::testing::FakeNetworkAccessManager;
using tellwyn::testing::FakeReply;

Q_DECLARE_METATYPE(std::optional<UpdateInfo>)

namespace {

struct RecordingPresenter final : UpdatePresenter {
    void showUpToDateAlert() override { ++upToDate; }
    void showCheckFailedAlert(const QString& message) override { failures.append(message); }
    void presentUpdateDownload(const UpdateDownloadPresentation& presentation) override {
        presentations.append(presentation);
    }
    int upToDate = 0;
    QStringList failures;
    QList<UpdateDownloadPresentation> presentations;
};

UpdateInfo info(QString version, UpdateType type, std::optional<QString> notes, QString link) {
    return UpdateInfo{std::move(version), type, std::move(notes), std::move(link)};
}

} // namespace

class TestUpdateCheck : public QObject {
    Q_OBJECT

    // Runs one fetch against a reply the test scripts, and waits for its outcome.
    UpdateCheckOutcome fetch(const std::function<void(FakeReply&)>& answer,
                             const QString& running = u"1.5.9"_s,
                             const QString& feedURL = u"https://127.0.0.1/updates/tellwynagent.txt"_s) {
        FakeNetworkAccessManager network;
        network.onRequest = [&answer](FakeReply& reply) {
            QMetaObject::invokeMethod(
                &reply, [&reply, &answer] { answer(reply); }, Qt::QueuedConnection);
        };
        QObject context;
        std::optional<UpdateCheckOutcome> outcome;
        fetchUpdateOutcome(network, UpdateCheckRequest{feedURL, running}, &context,
                           [&](UpdateCheckOutcome o) { outcome = std::move(o); });
        if (!QTest::qWaitFor([&] { return outcome.has_value(); }, tellwyn::testing::eventDeadlineMs)) {
            qFatal("no outcome");
        }
        return *outcome;
    }

    static std::function<void(FakeReply&)> serve(int status, QByteArray body) {
        return [status, body](FakeReply& reply) {
            reply.respond(status);
            reply.sendBody(body);
            reply.finish(status >= 400 ? QNetworkReply::ContentNotFoundError : QNetworkReply::NoError,
                         u"server replied: error"_s);
        };
    }

private Q_SLOTS:
    void versionComparison_data() {
        QTest::addColumn<QString>("candidate");
        QTest::addColumn<QString>("current");
        QTest::addColumn<bool>("newer");
        QTest::newRow("numeric, not text") << u"1.5.10"_s << u"1.5.9"_s << true;
        QTest::newRow("older") << u"1.5.9"_s << u"1.5.10"_s << false;
        QTest::newRow("missing piece is zero") << u"1.6"_s << u"1.6.0"_s << false;
        QTest::newRow("extra piece") << u"1.6.0.1"_s << u"1.6.0"_s << true;
        QTest::newRow("letters dropped") << u"1.6.0-beta"_s << u"1.6.0"_s << false;
        QTest::newRow("dropped piece closes up") << u"1.x.7"_s << u"1.6"_s << true;
        QTest::newRow("plus sign") << u"+2.0"_s << u"1.9"_s << true;
        QTest::newRow("minus sign") << u"-1.5"_s << u"0.0"_s << false;
        QTest::newRow("lone sign dropped") << u"+.2"_s << u"1.0"_s << true;
        QTest::newRow("overflow dropped") << u"99999999999999999999.1"_s << u"1.0"_s << false;
        QTest::newRow("both empty") << u""_s << u""_s << false;
        QTest::newRow("space is not a digit") << u"1.0 .5"_s << u"1.0"_s << true;
    }
    void versionComparison() {
        QFETCH(QString, candidate);
        QFETCH(QString, current);
        QFETCH(bool, newer);
        QCOMPARE(isVersionNewer(candidate, current), newer);
    }

    void feedGrammar_data() {
        QTest::addColumn<QString>("text");
        QTest::addColumn<std::optional<UpdateInfo>>("expected");
        const std::optional<UpdateInfo> invalid;
        QTest::newRow("pipe") << u"1.6.0|Major|New dashboard|https://h/a.deb"_s
                              << std::optional(info(u"1.6.0"_s, UpdateType::major, u"New dashboard"_s,
                                                    u"https://h/a.deb"_s));
        QTest::newRow("pipe fields trimmed, extras ignored")
            << u" 1.6.1 | Patch |\n fixes \n| https://h/b.deb |more|x"_s
            << std::optional(info(u"1.6.1"_s, UpdateType::patch, u"fixes"_s, u"https://h/b.deb"_s));
        QTest::newRow("pipe type is case-sensitive")
            << u"1.6.0|major|notes|"_s << std::optional(info(u"1.6.0"_s, UpdateType::minor, u"notes"_s, {}));
        QTest::newRow("pipe empty fields")
            << u"1.6.0|||"_s << std::optional(info(u"1.6.0"_s, UpdateType::minor, std::nullopt, {}));
        QTest::newRow("pipe with three fields") << u"9.0.0|Major|notes"_s << invalid;
        QTest::newRow("pipe without version") << u"|Major|notes|https://h/a.deb"_s << invalid;
        QTest::newRow("colon") << u"1.6.0: New dashboard"_s
                               << std::optional(info(u"1.6.0"_s, UpdateType::minor, u"New dashboard"_s, {}));
        QTest::newRow("colon splits once")
            << u"1.6.0:Fixes: many"_s
            << std::optional(info(u"1.6.0"_s, UpdateType::minor, u"Fixes: many"_s, {}));
        QTest::newRow("colon without notes")
            << u"1.6.0:"_s << std::optional(info(u"1.6.0"_s, UpdateType::minor, std::nullopt, {}));
        QTest::newRow("colon alone") << u":"_s << invalid;
        QTest::newRow("colon without full stop") << u"2:notes"_s << invalid;
        QTest::newRow("plain") << u"1.6.0"_s
                               << std::optional(info(u"1.6.0"_s, UpdateType::minor, std::nullopt, {}));
        QTest::newRow("plain without full stop") << u"2"_s << invalid;
        QTest::newRow("empty") << u""_s << invalid;
    }
    void feedGrammar() {
        QFETCH(QString, text);
        QFETCH(std::optional<UpdateInfo>, expected);
        QCOMPARE(parseUpdateFeed(text), expected);
    }

    void installerUrlRule_data() {
        QTest::addColumn<QString>("link");
        QTest::addColumn<QString>("expected");
        const QString fallback = vendorDownloadBaseURL() + u"TellwynAgent"_s + installerExtension();
        QTest::newRow("https link") << u"https://h/pkg.deb"_s << u"https://h/pkg.deb"_s;
        QTest::newRow("http link, trimmed") << u"  http://h/pkg.deb\n"_s << u"http://h/pkg.deb"_s;
        QTest::newRow("empty") << u""_s << fallback;
        QTest::newRow("other scheme") << u"ftp://h/pkg.deb"_s << fallback;
        QTest::newRow("scheme not lower case") << u"HTTPS://h/pkg.deb"_s << fallback;
        QTest::newRow("not a URL") << u"download here"_s << fallback;
    }
    void installerUrlRule() {
        QFETCH(QString, link);
        QFETCH(QString, expected);
        const std::optional<QUrl> url = installerURL(info(u"2.0"_s, UpdateType::minor, std::nullopt, link));
        QVERIFY(url);
        QCOMPARE(url->toString(), expected);
    }

    void fallbackNeedsAName() {
        QCOMPARE(fallbackInstallerURL(u"https://h/d/"_s, u" \n"_s, u".deb"_s), std::nullopt);
        QCOMPARE(fallbackInstallerURL(u"https://h/d/"_s, u" TellwynAgent\n"_s, u".deb"_s),
                 std::optional(QUrl(u"https://h/d/TellwynAgent.deb"_s)));
    }

    // The command line's feed beats the environment's (which test_update.py shows beating the
    // built-in one).
    void feedLocationOverrides() {
        qputenv(updateFeedEnvironmentVariable, "http://127.0.0.1:1/feed.txt");
        QCOMPARE(resolveUpdateFeedURL(u"http://127.0.0.1:2/x.txt"_s), u"http://127.0.0.1:2/x.txt"_s);
        qunsetenv(updateFeedEnvironmentVariable);
    }

    // The failure texts of the server's answers are checked through real HTTP in test_update.py.
    void fetchOutcomes_data() {
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QString>("running");
        QTest::addColumn<int>("kind");
        QTest::addColumn<QString>("message");
        using K = UpdateCheckOutcome::Kind;
        QTest::newRow("newer") << 200 << QByteArray("1.6.0\n") << u"1.5.9"_s << int(K::updateAvailable)
                               << QString();
        QTest::newRow("same") << 200 << QByteArray("  1.5.9  ") << u"1.5.9"_s << int(K::upToDate)
                              << QString();
        QTest::newRow("no running version counts as 1.0.0")
            << 200 << QByteArray("1.0.0") << u""_s << int(K::upToDate) << QString();
        QTest::newRow("no running version, newer feed")
            << 200 << QByteArray("1.0.1") << u""_s << int(K::updateAvailable) << QString();
    }
    void fetchOutcomes() {
        QFETCH(int, status);
        QFETCH(QByteArray, body);
        QFETCH(QString, running);
        QFETCH(int, kind);
        QFETCH(QString, message);
        const UpdateCheckOutcome outcome = fetch(serve(status, body), running);
        QCOMPARE(int(outcome.kind), kind);
        QCOMPARE(outcome.message, message);
    }

    void transportFailuresKeepTheirOwnText() {
        const UpdateCheckOutcome refused = fetch([](FakeReply& reply) {
            reply.finish(QNetworkReply::ConnectionRefusedError, u"Connection refused"_s);
        });
        QCOMPARE(refused, UpdateCheckOutcome::checkFailed(u"Connection refused"_s));

        // Headers arrived, then the connection broke: the break is what went wrong.
        const UpdateCheckOutcome broken = fetch([](FakeReply& reply) {
            reply.respond(200);
            reply.sendBody("1.6");
            reply.finish(QNetworkReply::RemoteHostClosedError, u"Remote host closed the connection"_s);
        });
        QCOMPARE(broken, UpdateCheckOutcome::checkFailed(u"Remote host closed the connection"_s));

        const UpdateCheckOutcome notHttp = fetch([](FakeReply& reply) {
            reply.sendBody("1.6.0");
            reply.finish();
        });
        QCOMPARE(notHttp, UpdateCheckOutcome::checkFailed(u"No response from the update server."_s));

        // The transfer time-out cancels the request: the user reads that it timed out.
        const UpdateCheckOutcome timedOut = fetch([](FakeReply& reply) {
            reply.finish(QNetworkReply::OperationCanceledError, u"Operation canceled"_s);
        });
        QCOMPARE(timedOut, UpdateCheckOutcome::checkFailed(u"The request timed out."_s));

        // A body far larger than any feed is given up once it passes the limit.
        int chunksSent = 0;
        const UpdateCheckOutcome tooLarge = fetch([&chunksSent](FakeReply& reply) {
            reply.respond(200);
            for (; chunksSent < 100 && !reply.isFinished(); ++chunksSent) {
                reply.sendBody(QByteArray(4096, 'x'));
            }
            reply.finish();
        });
        QCOMPARE(tooLarge, UpdateCheckOutcome::checkFailed(u"The update information is too large."_s));
        QCOMPARE(chunksSent, 17); // 64 KiB and one chunk more
    }

    void unusableFeedUrl_data() {
        QTest::addColumn<QString>("url");
        QTest::newRow("empty") << u""_s;
        QTest::newRow("relative") << u"updates/tellwynagent.txt"_s;
        QTest::newRow("malformed") << u"http://[::1/x"_s;
    }
    void unusableFeedUrl() {
        QFETCH(QString, url);
        bool asked = false;
        const UpdateCheckOutcome outcome = fetch([&asked](FakeReply&) { asked = true; }, u"1.0.0"_s, url);
        QCOMPARE(outcome, UpdateCheckOutcome::checkFailed(u"Invalid update feed URL."_s));
        QVERIFY(!asked);
    }

    void checkPresentsEachOutcome() {
        FakeNetworkAccessManager network;
        QByteArray feed;
        network.onRequest = [&feed](FakeReply& reply) {
            QMetaObject::invokeMethod(
                &reply, [&reply, &feed] { serve(200, feed)(reply); }, Qt::QueuedConnection);
        };
        QObject context;
        RecordingPresenter presenter;
        const UpdateCheckRequest request{u"https://127.0.0.1/updates/tellwynagent.txt"_s, u"1.5.0"_s};

        feed = "1.6.0|Patch|Fixes|https://127.0.0.1/TellwynAgent-1.6.0.deb";
        checkForUpdates(network, request, &context, presenter);
        checkForUpdates(network, request, &context, presenter);
        TRY_COMPARE(presenter.presentations.size(), 2);
        const UpdateDownloadPresentation& first = presenter.presentations.constFirst();
        QCOMPARE(first.info, info(u"1.6.0"_s, UpdateType::patch, u"Fixes"_s,
                                  u"https://127.0.0.1/TellwynAgent-1.6.0.deb"_s));
        QCOMPARE(first.fileURL, QUrl(u"https://127.0.0.1/TellwynAgent-1.6.0.deb"_s));
        QVERIFY(!first.id.isNull());
        QVERIFY(first.id != presenter.presentations.constLast().id); // every presentation is new

        feed = "1.5.0";
        checkForUpdates(network, request, &context, presenter);
        TRY_COMPARE(presenter.upToDate, 1);

        feed = "garbage";
        checkForUpdates(network, request, &context, presenter);
        TRY_COMPARE(presenter.failures, QStringList{u"Invalid update feed format."_s});

        // Without a usable installer address not even the fallback can be made.
        qputenv(downloadBaseEnvironmentVariable, "http://[bad/");
        feed = "1.6.0";
        checkForUpdates(network, request, &context, presenter);
        TRY_COMPARE(presenter.failures.size(), 2);
        qunsetenv(downloadBaseEnvironmentVariable);
        QCOMPARE(presenter.failures.constLast(),
                 u"The download link for this update is missing or invalid."_s);
        QCOMPARE(presenter.presentations.size(), 2);
    }

    void outcomeIsDroppedWhenItsContextIsGone() {
        FakeNetworkAccessManager network;
        network.onRequest = [](FakeReply& reply) {
            QMetaObject::invokeMethod(
                &reply, [&reply] { serve(200, "1.6.0")(reply); }, Qt::QueuedConnection);
        };
        auto context = std::make_unique<QObject>();
        bool delivered = false;
        fetchUpdateOutcome(network, UpdateCheckRequest{u"https://127.0.0.1/f.txt"_s, u"1.0"_s}, context.get(),
                           [&delivered](UpdateCheckOutcome) { delivered = true; });
        context.reset();
        TRY_VERIFY(network.lastReply() == nullptr || network.lastReply()->isFinished());
        QTest::qWait(0);
        QVERIFY(!delivered);
    }
};

QTEST_GUILESS_MAIN(TestUpdateCheck)
#include "tst_update_check.moc"
