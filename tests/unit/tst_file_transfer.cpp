// The file-transfer engine: hostile names always land inside the folder, collisions get numbered
// names, refusals come before any byte is written, and a broken-off transfer leaves nothing.

#include "file_transfer_receiver.h"

#include <QCryptographicHash>
#include <QDir>
#include <QTemporaryDir>
#include <QTest>
#include <csignal>
#include <cstring>
#include <sys/resource.h>

using namespace Qt::StringLiterals;
using namespace tellwyn;

namespace {

QByteArray sha256(const QByteArray& data) {
    return QCryptographicHash::hash(data, QCryptographicHash::Sha256);
}

// Every entry of `directory`, hidden ones included, recursively.
QStringList everything(const QString& directory) {
    QStringList names;
    QDir dir(directory);
    for (const QFileInfo& info :
         dir.entryInfoList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot)) {
        names.append(info.fileName());
        if (info.isDir()) {
            for (const QString& inner : everything(info.filePath())) {
                names.append(info.fileName() + u'/' + inner);
            }
        }
    }
    names.sort();
    return names;
}

} // namespace

class TestFileTransfer : public QObject {
    Q_OBJECT

    QTemporaryDir root;
    QString folder;
    QList<HLVPMessage> sent;
    int activity = 0;
    std::unique_ptr<FileTransferReceiver> receiver;

    void makeReceiver(FileTransferLimits limits = {}) {
        receiver = std::make_unique<FileTransferReceiver>(
            [this](const HLVPMessage& message) { sent.append(message); }, [this] { ++activity; }, nullptr,
            std::move(limits));
        receiver->configure(true, folder);
    }

    template <typename T> const T* last() const {
        for (auto it = sent.crbegin(); it != sent.crend(); ++it) {
            if (const auto* message = std::get_if<T>(&*it)) {
                return message;
            }
        }
        return nullptr;
    }

    // Sends a whole file in chunks; the result message.
    FileResultMessage upload(const QString& id, const QString& name, const QByteArray& data,
                             std::optional<QByteArray> digest = std::nullopt) {
        receiver->handle(FileOfferMessage{id, name, quint64(data.size()), {}});
        if (last<FileResultMessage>() && last<FileResultMessage>()->transferID == id) {
            return *last<FileResultMessage>();
        }
        for (qsizetype offset = 0; offset < data.size(); offset += 1000) {
            receiver->handle(FileChunkMessage{id, quint64(offset), data.mid(offset, 1000), {}});
        }
        receiver->handle(FileCompleteMessage{id, digest.value_or(sha256(data)), {}});
        return *last<FileResultMessage>();
    }

private Q_SLOTS:
    void init() {
        sent.clear();
        activity = 0;
        folder = QDir(root.path()).filePath(u"Downloads/Tellwyn"_s);
        QDir(folder).removeRecursively();
        makeReceiver();
    }

    void hostileNamesLandInsideTheFolder_data() {
        QTest::addColumn<QString>("offered");
        QTest::addColumn<QString>("saved");
        QTest::newRow("plain") << u"report.pdf"_s << u"report.pdf"_s;
        QTest::newRow("parent folders") << u"../../../etc/passwd"_s << u"passwd"_s;
        QTest::newRow("absolute path") << u"/etc/shadow"_s << u"shadow"_s;
        QTest::newRow("windows path") << u"C:\\Users\\x\\evil.bat"_s << u"evil.bat"_s;
        QTest::newRow("only dots") << u".."_s << u"file"_s;
        QTest::newRow("trailing separator") << u"folder/"_s << u"file"_s;
        QTest::newRow("hidden file") << u".bashrc"_s << u"bashrc"_s;
        QTest::newRow("NUL and control characters") << u"a\u0000b\u0007c\nd.txt"_s << u"abcd.txt"_s;
        QTest::newRow("direction override") << u"invoice\u202Efdp.exe"_s << u"invoicefdp.exe"_s;
        QTest::newRow("invalid UTF-8, replaced on decoding") << u"caf\uFFFD.txt"_s << u"caf.txt"_s;
        QTest::newRow("blank") << u"   "_s << u"file"_s;
        QTest::newRow("unicode kept") << u"Grüße 日本.txt"_s << u"Grüße 日本.txt"_s;
    }

    void hostileNamesLandInsideTheFolder() {
        QFETCH(QString, offered);
        QFETCH(QString, saved);
        const FileResultMessage result = upload(u"t"_s, offered, "content");
        QVERIFY(result.success);
        QCOMPARE(result.savedName, std::optional<QString>(saved));
        QCOMPARE(everything(QDir(root.path()).filePath(u"Downloads"_s)),
                 (QStringList{u"Tellwyn"_s, u"Tellwyn/"_s + saved}));
    }

    void longNamesAreCutKeepingTheExtension() {
        const QString offered = QString(300, QChar(0x00e9)) + u".tar.gz"_s; // 600+ bytes in UTF-8
        const FileResultMessage result = upload(u"t"_s, offered, "x");
        QVERIFY(result.success);
        QVERIFY(result.savedName->toUtf8().size() <= maxFileNameBytes);
        QVERIFY(result.savedName->endsWith(u".gz"_s));
        QVERIFY(QFileInfo::exists(QDir(folder).filePath(*result.savedName)));
    }

    void collisionsGetNumberedNamesAndNothingIsReplaced() {
        QVERIFY(upload(u"1"_s, u"photo.jpg"_s, "one").success);
        QCOMPARE(upload(u"2"_s, u"photo.jpg"_s, "two").savedName, std::optional<QString>(u"photo (1).jpg"_s));
        QCOMPARE(upload(u"3"_s, u"photo.jpg"_s, "three").savedName,
                 std::optional<QString>(u"photo (2).jpg"_s));
        QCOMPARE(upload(u"4"_s, u"README"_s, "a").savedName, std::optional<QString>(u"README"_s));
        QCOMPARE(upload(u"5"_s, u"README"_s, "b").savedName, std::optional<QString>(u"README (1)"_s));
        QFile first(QDir(folder).filePath(u"photo.jpg"_s));
        QVERIFY(first.open(QIODevice::ReadOnly));
        QCOMPARE(first.readAll(), QByteArray("one"));
        // A file that takes the announced name during the transfer is not replaced either.
        receiver->handle(FileOfferMessage{u"6"_s, u"late.txt"_s, 4, {}});
        QCOMPARE(last<FileAcceptMessage>()->savedName, u"late.txt"_s);
        QFile squatter(QDir(folder).filePath(u"late.txt"_s));
        QVERIFY(squatter.open(QIODevice::WriteOnly));
        squatter.write("theirs");
        squatter.close();
        receiver->handle(FileChunkMessage{u"6"_s, 0, "mine", {}});
        receiver->handle(FileCompleteMessage{u"6"_s, sha256("mine"), {}});
        QCOMPARE(last<FileResultMessage>()->savedName, std::optional<QString>(u"late (1).txt"_s));
        QVERIFY(squatter.open(QIODevice::ReadOnly));
        QCOMPARE(squatter.readAll(), QByteArray("theirs"));
    }

    void refusalsComeBeforeAnyByteIsWritten_data() {
        QTest::addColumn<bool>("enabled");
        QTest::addColumn<quint64>("size");
        QTest::addColumn<quint64>("freeSpace");
        QTest::addColumn<QString>("reasonPart");
        QTest::newRow("transfers off") << false << quint64(10) << quint64(1) << u"switched off"_s;
        QTest::newRow("over the maximum") << true << quint64(2000) << quint64(1) << u"larger than"_s;
        // The margin is part of what is needed, so the numbers never read as a contradiction.
        QTest::newRow("no room")
            << true << quint64(500) << quint64(1)
            << u"Not enough free space on this computer: 600 bytes needed (500 bytes for the file "
               u"and 100 bytes kept free), 550 bytes available."_s;
    }

    void refusalsComeBeforeAnyByteIsWritten() {
        QFETCH(bool, enabled);
        QFETCH(quint64, size);
        QFETCH(quint64, freeSpace);
        QFETCH(QString, reasonPart);
        FileTransferLimits limits;
        limits.maxFileBytes = 1000;
        limits.freeSpaceMargin = 100;
        limits.freeSpace = [freeSpace](const QString&) {
            return std::optional<quint64>(freeSpace * 550);
        };
        makeReceiver(limits);
        receiver->configure(enabled, folder);
        receiver->handle(FileOfferMessage{u"t"_s, u"big.bin"_s, size, {}});
        const auto* result = last<FileResultMessage>();
        QVERIFY(result && !result->success);
        QVERIFY2(result->errorMessage->contains(reasonPart), qPrintable(*result->errorMessage));
        QVERIFY(!last<FileAcceptMessage>());
        QVERIFY(!QDir(folder).exists() || everything(folder).isEmpty());
    }

    void brokenOffTransfersLeaveNothingBehind_data() {
        QTest::addColumn<QString>("howItEnds");
        QTest::newRow("connection gone") << u"destroyed"_s;
        QTest::newRow("viewer cancels") << u"cancel"_s;
        QTest::newRow("switched off mid-way") << u"off"_s;
        QTest::newRow("wrong digest") << u"digest"_s;
        QTest::newRow("ends early") << u"short"_s;
        QTest::newRow("piece out of order") << u"order"_s;
    }

    void brokenOffTransfersLeaveNothingBehind() {
        QFETCH(QString, howItEnds);
        const QByteArray data(5000, 'z');
        const QByteArray digest = howItEnds == u"digest"_s ? sha256("other") : sha256(data);
        receiver->handle(FileOfferMessage{u"t"_s, u"partial.bin"_s, quint64(data.size()), {}});
        QVERIFY(last<FileAcceptMessage>());
        receiver->handle(FileChunkMessage{u"t"_s, 0, data.left(2000), {}});
        QCOMPARE(activity, 1);
        QCOMPARE(last<FileChunkAckMessage>()->receivedBytes, 2000U);
        QCOMPARE(everything(folder).size(), 1); // the hidden partial file
        QVERIFY(everything(folder).constFirst().startsWith(u'.'));
        if (howItEnds == u"destroyed"_s) {
            receiver.reset();
        } else if (howItEnds == u"cancel"_s) {
            receiver->handle(FileCancelMessage{u"t"_s, u"changed my mind"_s, {}});
        } else if (howItEnds == u"off"_s) {
            receiver->configure(false, folder);
            QCOMPARE(last<FileCancelMessage>()->transferID, u"t"_s);
        } else if (howItEnds == u"digest"_s) {
            receiver->handle(FileChunkMessage{u"t"_s, 2000, data.mid(2000), {}});
            receiver->handle(FileCompleteMessage{u"t"_s, digest, {}});
            QVERIFY(last<FileResultMessage>()->errorMessage->contains(u"SHA-256"_s));
        } else if (howItEnds == u"short"_s) {
            receiver->handle(FileCompleteMessage{u"t"_s, digest, {}});
            QVERIFY(!last<FileResultMessage>()->success);
        } else if (howItEnds == u"order"_s) {
            receiver->handle(FileChunkMessage{u"t"_s, 4000, data.left(1000), {}});
            QVERIFY(last<FileResultMessage>()->errorMessage->contains(u"out of order"_s));
        }
        QCOMPARE(everything(folder), QStringList());
        if (receiver) {
            QCOMPARE(receiver->activeTransfers(), 0);
        }
    }

    void theFolderIsMadePrivateWhenMissing() {
        QVERIFY(!QDir(folder).exists());
        QVERIFY(upload(u"t"_s, u"a.txt"_s, "a").success);
        QCOMPARE(QFileInfo(folder).permissions() & (QFile::ReadGroup | QFile::ReadOther | QFile::ExeOther),
                 QFileDevice::Permissions());
        QCOMPARE(QFileInfo(QDir(folder).filePath(u"a.txt"_s)).permissions() &
                     (QFile::ReadGroup | QFile::ReadOther),
                 QFileDevice::Permissions());
    }

    // A partial file left by an agent that died is removed at the next offer; one that a live
    // transfer is writing is not.
    void partialFilesOfDeadTransfersAreRemoved() {
        makeReceiver({});
        receiver->configure(true, folder);
        QVERIFY(QDir().mkpath(folder));
        QFile abandoned(folder + u"/.tellwyn-upload-0123.part"_s);
        QVERIFY(abandoned.open(QIODevice::WriteOnly));
        abandoned.close();
        receiver->handle(FileOfferMessage{u"live"_s, u"live.bin"_s, 8, {}});
        QVERIFY(last<FileAcceptMessage>());
        QVERIFY(!abandoned.exists());
        const QStringList live =
            QDir(folder).entryList({u".tellwyn-upload-*.part"_s}, QDir::Files | QDir::Hidden);
        QCOMPARE(live.size(), 1);

        FileTransferReceiver other([](const HLVPMessage&) {}, {}, {});
        other.configure(true, folder);
        other.handle(FileOfferMessage{u"second"_s, u"second.bin"_s, 8, {}});
        QVERIFY(QFile::exists(folder + u'/' + live.constFirst()));
    }

    // A dangling symbolic link holds its name: the file gets another name and is really there.
    void aDanglingLinkWithTheFilesNameIsNotOverwrittenNorReportedAsTheFile() {
        makeReceiver({});
        receiver->configure(true, folder);
        QVERIFY(QDir().mkpath(folder));
        QVERIFY(QFile::link(folder + u"/nowhere"_s, folder + u"/report.txt"_s));
        receiver->handle(FileOfferMessage{u"d"_s, u"report.txt"_s, 4, {}});
        receiver->handle(FileChunkMessage{u"d"_s, 0, "data", {}});
        receiver->handle(FileCompleteMessage{u"d"_s, sha256("data"), {}});
        const auto* result = last<FileResultMessage>();
        QVERIFY(result && result->success);
        QCOMPARE(result->savedName, std::optional<QString>(u"report (1).txt"_s));
        QFile saved(folder + u"/report (1).txt"_s);
        QVERIFY(saved.open(QIODevice::ReadOnly));
        QCOMPARE(saved.readAll(), QByteArray("data"));
    }

    // The disk refusing a write (here: the process's file-size limit) fails the transfer with the
    // system's reason, and nothing is kept.
    void aWriteThatFailsOnTheWriterThreadFailsTheTransfer() {
        std::signal(SIGXFSZ, SIG_IGN); // EFBIG instead of the signal
        rlimit original{};
        QCOMPARE(::getrlimit(RLIMIT_FSIZE, &original), 0);
        rlimit small = original;
        small.rlim_cur = 64 * 1024;
        QCOMPARE(::setrlimit(RLIMIT_FSIZE, &small), 0);
        const FileResultMessage result = upload(u"big"_s, u"big.bin"_s, QByteArray(256 * 1024, 'b'));
        ::setrlimit(RLIMIT_FSIZE, &original);
        QVERIFY(!result.success);
        QCOMPARE(*result.errorMessage,
                 u"The file cannot be written: %1"_s.arg(QString::fromLocal8Bit(strerror(EFBIG))));
        QCOMPARE(everything(folder), QStringList());
        QCOMPARE(receiver->activeTransfers(), 0);
    }
};

QTEST_GUILESS_MAIN(TestFileTransfer)
#include "tst_file_transfer.moc"
