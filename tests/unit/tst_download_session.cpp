#include "download_session.h"
#include "fake_network.h"
#include "virtual_time.h"

#include <QDir>
#include <QTemporaryDir>
#include <QTest>

using namespace std::chrono_literals;
using namespace Qt::StringLiterals;
using namespace tellwyn;
using tellwyn::testing::FakeNetworkAccessManager;
using tellwyn::testing::FakeReply;
using tellwyn::testing::VirtualTime;
using Phase = BrevaneInstallerDownloadSession::Phase;

namespace {

const QUrl installer(u"https://127.0.0.1/downloads/TellwynAgent.deb"_s);

void writeFile(const QString& path, const QByteArray& bytes) {
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(bytes);
}

QByteArray readFile(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// Everything in the folder, hidden files included.
QStringList entries(const QString& folder) {
    return QDir(folder).entryList(QDir::Files | QDir::Hidden | QDir::NoDotAndDotDot, QDir::Name);
}

} // namespace

class TestDownloadSession : public QObject {
    Q_OBJECT

    // One session with its fakes and a fresh Downloads folder.
    struct Rig {
        QTemporaryDir downloads;
        VirtualTime time;
        FakeNetworkAccessManager network;
        BrevaneInstallerDownloadSession session{time};
        QList<Phase> phases;

        Rig() {
            session.setNetworkAccessManager(&network);
            const QString folder = downloads.path();
            session.setDownloadsFolders([folder] { return QStringList{folder}; });
            QObject::connect(&session, &BrevaneInstallerDownloadSession::phaseChanged, &session,
                             [this] { phases.append(session.phase()); });
        }
        QString folder() const { return downloads.path(); }
        FakeReply& reply() { return *network.lastReply(); }
        // Starts, gets the response head and hands the download over.
        FakeReply& startAndRespond(qint64 length = 10) {
            session.startDownload(installer);
            reply().respond(200, {{"Content-Length", QByteArray::number(length)}});
            return reply();
        }
    };

private Q_SLOTS:
    void destinationNames_data() {
        QTest::addColumn<QStringList>("existing");
        QTest::addColumn<QString>("suggested");
        QTest::addColumn<QString>("expected");
        QTest::newRow("free") << QStringList{} << u"TellwynAgent.deb"_s << u"TellwynAgent.deb"_s;
        QTest::newRow("taken twice") << QStringList{u"TellwynAgent.deb"_s, u"TellwynAgent (1).deb"_s}
                                     << u"TellwynAgent.deb"_s << u"TellwynAgent (2).deb"_s;
        QTest::newRow("directories dropped")
            << QStringList{} << u"../a/b/TellwynAgent.deb"_s << u"TellwynAgent.deb"_s;
        QTest::newRow("no extension")
            << QStringList{u"TellwynAgent"_s} << u"TellwynAgent"_s << u"TellwynAgent (1)"_s;
        QTest::newRow("last extension only")
            << QStringList{u"t.tar.gz"_s} << u"t.tar.gz"_s << u"t.tar (1).gz"_s;
        QTest::newRow("hidden name has no extension") << QStringList{u".deb"_s} << u".deb"_s << u".deb (1)"_s;
    }
    void destinationNames() {
        QFETCH(QStringList, existing);
        QFETCH(QString, suggested);
        QFETCH(QString, expected);
        QTemporaryDir dir;
        for (const QString& name : existing) {
            writeFile(dir.filePath(name), "x");
        }
        QCOMPARE(collisionFreeFilePath(dir.path(), suggested), dir.filePath(expected));
    }

    void suggestedNames_data() {
        QTest::addColumn<QByteArray>("disposition");
        QTest::addColumn<QString>("url");
        QTest::addColumn<QString>("expected");
        QTest::newRow("from the URL")
            << QByteArray() << u"https://h/d/TellwynAgent_1.6.deb?x=1"_s << u"TellwynAgent_1.6.deb"_s;
        QTest::newRow("quoted") << QByteArray(R"(attachment; filename="Tellwyn Agent.deb")")
                                << u"https://h/get"_s << u"Tellwyn Agent.deb"_s;
        QTest::newRow("token") << QByteArray("attachment; filename=pkg.deb; size=3") << u"https://h/get"_s
                               << u"pkg.deb"_s;
        QTest::newRow("extended wins")
            << QByteArray("attachment; filename=\"a.deb\"; filename*=UTF-8''%C3%A9.deb") << u"https://h/get"_s
            << u"é.deb"_s;
        QTest::newRow("path in header reduced")
            << QByteArray(R"(attachment; filename="../../etc/x.deb")") << u"https://h/get"_s << u"x.deb"_s;
        QTest::newRow("nothing") << QByteArray() << u"https://h/"_s << QString();
    }
    void suggestedNames() {
        QFETCH(QByteArray, disposition);
        QFETCH(QString, url);
        QFETCH(QString, expected);
        QCOMPARE(suggestedDownloadFileName(disposition, QUrl(url)), expected);
    }

    void withoutNetworkNothingStarts() {
        VirtualTime time;
        BrevaneInstallerDownloadSession session(time);
        session.startDownload(installer);
        QCOMPARE(session.phase(), Phase::failed(u"Download could not start (internal error)."_s));
        QVERIFY(!session.lastRequestedURL());
    }

    void downloadArrivesUnderItsFinalNameOnlyWhenComplete() {
        Rig rig;
        writeFile(rig.downloads.filePath(u"TellwynAgent.deb"_s), "older");
        rig.session.startDownload(installer);
        QCOMPARE(rig.session.phase(), Phase::preparing());
        QCOMPARE(rig.session.lastRequestedURL(), std::optional(installer));
        QVERIFY(rig.reply().request().url() == installer);

        rig.reply().respond(200, {{"Content-Length", "10"}});
        QCOMPARE(rig.session.phase(), Phase::downloading());
        rig.reply().sendBody("01234", 10);
        QCOMPARE(rig.session.progress(), 0.5);
        // Meanwhile only a hidden partial file exists beside the one that was there.
        const QStringList during = entries(rig.folder());
        QCOMPARE(during.size(), 2);
        QVERIFY(during.contains(u"TellwynAgent.deb"_s));
        QVERIFY(during.constFirst().startsWith(u"."_s));
        QVERIFY(during.constFirst().endsWith(u".part"_s));

        rig.reply().sendBody("56789", 10);
        rig.reply().finish();
        const QString saved = rig.downloads.filePath(u"TellwynAgent (1).deb"_s);
        QCOMPARE(rig.session.phase(), Phase::finished(QUrl::fromLocalFile(saved)));
        QCOMPARE(rig.session.progress(), 1.0);
        QCOMPARE(readFile(saved), QByteArray("0123456789"));
        QCOMPARE(readFile(rig.downloads.filePath(u"TellwynAgent.deb"_s)), QByteArray("older"));
        QCOMPARE(entries(rig.folder()), (QStringList{u"TellwynAgent (1).deb"_s, u"TellwynAgent.deb"_s}));
        QCOMPARE(rig.phases, (QList<Phase>{Phase::preparing(), Phase::downloading(),
                                           Phase::finished(QUrl::fromLocalFile(saved))}));
    }

    void aNameTakenDuringTheDownloadIsNotOverwritten() {
        Rig rig;
        FakeReply& reply = rig.startAndRespond(3);
        reply.sendBody("new", 3);
        writeFile(rig.downloads.filePath(u"TellwynAgent.deb"_s), "someone else's");
        reply.finish();
        QCOMPARE(rig.session.phase(),
                 Phase::finished(QUrl::fromLocalFile(rig.downloads.filePath(u"TellwynAgent (1).deb"_s))));
        QCOMPARE(readFile(rig.downloads.filePath(u"TellwynAgent.deb"_s)), QByteArray("someone else's"));
        QCOMPARE(readFile(rig.downloads.filePath(u"TellwynAgent (1).deb"_s)), QByteArray("new"));
    }

    void unknownLengthGivesNoFraction() {
        Rig rig;
        rig.session.startDownload(installer);
        rig.reply().respond(200);
        rig.reply().sendBody("abc", -1);
        QCOMPARE(rig.session.progress(), 0.0);
        QCOMPARE(rig.session.bytesReceived(), 3);
    }

    void cancelBeforeHandOverEndsAtOnce() {
        Rig rig;
        rig.session.startDownload(installer);
        rig.session.cancelDownload();
        QCOMPARE(rig.session.phase(), Phase::cancelled());
        QCOMPARE(rig.reply().abortCount, 1);
        QCOMPARE(rig.phases, (QList<Phase>{Phase::preparing(), Phase::cancelled()}));
        QCOMPARE(entries(rig.folder()), QStringList());
        QCOMPARE(rig.time.pendingTimerCount(), 0);
    }

    void cancelDuringTheTransferLeavesNothing() {
        Rig rig;
        FakeReply& reply = rig.startAndRespond();
        reply.sendBody("01234", 10);
        QCOMPARE(entries(rig.folder()).size(), 1);
        rig.session.cancelDownload();
        QCOMPARE(reply.abortCount, 1);
        QCOMPARE(rig.session.phase(), Phase::cancelled());
        QCOMPARE(entries(rig.folder()), QStringList());
        QCOMPARE(rig.session.progress(), 0.5); // as far as it got
    }

    void failureLeavesNothingAndRetryStartsOver() {
        Rig rig;
        FakeReply& first = rig.startAndRespond();
        first.sendBody("01234", 10);
        first.finish(QNetworkReply::RemoteHostClosedError, u"Connection closed"_s);
        QCOMPARE(rig.session.phase(), Phase::failed(u"Connection closed"_s));
        QCOMPARE(entries(rig.folder()), QStringList());

        // "Retry" is a new start of the same address, from the beginning.
        rig.session.startDownload(*rig.session.lastRequestedURL());
        QCOMPARE(rig.network.replies.size(), 2);
        QCOMPARE(rig.reply().request().url(), installer);
        QCOMPARE(rig.session.phase(), Phase::preparing());
        QCOMPARE(rig.session.progress(), 0.0);
        rig.reply().respond(200);
        rig.reply().sendBody("0123456789", 10);
        rig.reply().finish();
        QCOMPARE(readFile(rig.downloads.filePath(u"TellwynAgent.deb"_s)), QByteArray("0123456789"));
    }

    void serverErrorIsNotSaved() {
        Rig rig;
        rig.session.startDownload(installer);
        rig.reply().respond(404);
        rig.reply().sendBody("<html>not here</html>");
        rig.reply().finish(QNetworkReply::ContentNotFoundError,
                           u"Error transferring - server replied: Not Found"_s);
        QCOMPARE(rig.session.phase(), Phase::failed(u"Error transferring - server replied: Not Found"_s));
        QCOMPARE(entries(rig.folder()), QStringList());
    }

    void finishWithoutALocation() {
        Rig rig;
        rig.session.startDownload(installer);
        rig.reply().respond(300); // a choice with nowhere to go: nothing to save
        rig.reply().finish();
        QCOMPARE(rig.session.phase(),
                 Phase::failed(u"Download finished but the file location is unknown."_s));
        QCOMPARE(rig.session.progress(), 1.0);
    }

    void noDownloadsFolder_data() {
        QTest::addColumn<bool>("none");
        QTest::newRow("none known") << true;
        QTest::newRow("cannot be made") << false;
    }
    void noDownloadsFolder() {
        QFETCH(bool, none);
        Rig rig;
        const QString blocker = rig.downloads.filePath(u"file"_s);
        writeFile(blocker, "x");
        rig.session.setDownloadsFolders(
            [none, blocker] { return none ? QStringList() : QStringList{blocker + u"/Downloads"_s}; });
        rig.session.startDownload(installer);
        rig.reply().respond(200);
        QCOMPARE(rig.session.phase(), Phase::failed(u"Could not access your Downloads folder."_s));
        QCOMPARE(rig.reply().abortCount, 1);
        QCOMPARE(entries(rig.folder()), QStringList{u"file"_s});
    }

    void aStalledTransferIsGivenUp() {
        Rig rig;
        FakeReply& reply = rig.startAndRespond();
        rig.time.advance(59s);
        reply.sendBody("01", 10); // activity starts the wait again
        rig.time.advance(59s);
        QCOMPARE(rig.session.phase(), Phase::downloading());
        rig.time.advance(1s);
        QCOMPARE(reply.abortCount, 1);
        QCOMPARE(rig.session.phase(),
                 Phase::failed(u"The download stopped because no data arrived for 60 seconds."_s));
        QCOMPARE(entries(rig.folder()), QStringList());
    }

    void redirects_data() {
        QTest::addColumn<QString>("from");
        QTest::addColumn<QString>("to");
        QTest::addColumn<bool>("allowed");
        QTest::newRow("http to https") << u"http://127.0.0.1/a"_s << u"https://127.0.0.1/b"_s << true;
        QTest::newRow("http to http") << u"http://127.0.0.1/a"_s << u"http://127.0.0.1/b"_s << true;
        QTest::newRow("https to http") << u"https://127.0.0.1/a"_s << u"http://127.0.0.1/b"_s << false;
    }
    void redirects() {
        QFETCH(QString, from);
        QFETCH(QString, to);
        QFETCH(bool, allowed);
        Rig rig;
        rig.session.startDownload(QUrl(from));
        rig.reply().redirect(QUrl(to));
        QCOMPARE(rig.reply().redirectsAllowed, allowed ? 1 : 0);
        if (allowed) {
            QCOMPARE(rig.session.phase(), Phase::preparing());
        } else {
            QCOMPARE(rig.reply().abortCount, 1);
            QCOMPARE(
                rig.session.phase(),
                Phase::failed(u"The download was stopped because the server sent it from a secure (https) "
                              "address to an insecure one. The installer is only downloaded securely."_s));
        }
    }
};

QTEST_GUILESS_MAIN(TestDownloadSession)
#include "tst_download_session.moc"
