// The HLVP frame codec: what goes out comes back the same, and what a hostile peer can send is
// refused with a reason instead of being half-read.

#include "hlvp_codec.h"

#include <QBuffer>
#include <QCborArray>
#include <QCborMap>
#include <QCborValue>
#include <QTest>
#include <QtEndian>

using namespace Qt::StringLiterals;
using namespace tellwyn;

Q_DECLARE_METATYPE(tellwyn::HLVPMessage)

namespace {

SystemStatsMessage fullStats() {
    SystemStatsMessage s;
    s.totalMemory = 17179869184ULL;
    s.freeMemory = 4294967296ULL;
    s.totalDiskSpace = 500000000000ULL;
    s.freeDiskSpace = 123456789012ULL;
    s.cpuUsage = 0.375;
    s.osVersion = u"Debian GNU/Linux 12 (bookworm)"_s;
    s.macModel = u"ThinkPad X1"_s;
    s.activeProcess = u"Firefox"_s;
    s.uptimeSeconds = 86400;
    s.agentVersion = u"1.0.0 (1)"_s;
    s.screenCaptureAuthorized = true;
    s.accessibilityAuthorized = false;
    s.screenLocked = std::nullopt;
    s.primaryIPAddress = u"192.168.1.20"_s;
    s.loggedInUser = u"alice"_s;
    s.networkName = u""_s;
    s.displayCount = 2;
    s.mainDisplayResolution = u"2560x1440"_s;
    s.serialNumber = u"PF2ABCDE"_s;
    s.hardwareUUID = u"4C4C4544-0042-3510-8052-B4C04F4E3332"_s;
    s.fileVaultEnabled = true;
    s.sipEnabled = true;
    s.gatekeeperEnabled = false;
    s.mdmEnrolled = false;
    s.lastBootTime = QDateTime::fromSecsSinceEpoch(1763900000, Qt::UTC);
    s.lastSleepCause = u"lid closed"_s;
    s.lastWakeCause = QString();
    s.diskVolumes = QList<HLVPDiskVolumeInfo>{{u"root"_s, u"/"_s, 500000000000ULL, 123456789012ULL},
                                              {u"Données"_s, u"/media/données"_s, 64, 0}};
    return s;
}

QByteArray cbor(const QCborMap& map) {
    return QCborValue(map).toCbor();
}

QCborMap handshakeMap() {
    return QCborMap{{u"type"_s, u"handshake"_s}, {u"clientName"_s, u"Viewer"_s}, {u"protocolVersion"_s, 1}};
}

QByteArray withHeader(quint32 length, const QByteArray& body) {
    QByteArray header(4, Qt::Uninitialized);
    qToBigEndian(length, header.data());
    return header + body;
}

} // namespace

class TestHlvpCodec : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void everyMessageSurvivesTheWire_data() {
        QTest::addColumn<HLVPMessage>("message");
        QTest::newRow("handshake") << HLVPMessage(HandshakeMessage{u"Ünïcode ☃ viewer"_s, 7, 42});
        QTest::newRow("handshake reply") << HLVPMessage(HandshakeResponseMessage{u"Agent"_s, 1, u"1.0.0"_s, {}});
        QTest::newRow("authentication")
            << HLVPMessage(AuthenticationMessage{HLVP::AuthenticationMethod::password, u"password"_s,
                                                 {{u"username"_s, u"alice"_s}, {u"password"_s, u"p\u00e4ss"_s}}, 3});
        QTest::newRow("unknown method kept by name")
            << HLVPMessage(AuthenticationMessage{HLVP::AuthenticationMethod::unknown, u"kerberos"_s, {}, {}});
        QTest::newRow("refusal") << HLVPMessage(
            AuthenticationResponseMessage{false, std::nullopt, u"Invalid username or password"_s, 9});
        QTest::newRow("success") << HLVPMessage(AuthenticationResponseMessage{true, u"token"_s, std::nullopt, {}});
        QTest::newRow("disconnect with empty reason") << HLVPMessage(DisconnectMessage{QString(), {}});
        QTest::newRow("heartbeat") << HLVPMessage(HeartbeatMessage{4000000000U});
        QTest::newRow("heartbeat reply") << HLVPMessage(HeartbeatResponseMessage{});
        QTest::newRow("screen request") << HLVPMessage(ScreenCaptureRequest{1, 0.5, {}, {}, {}});
        QTest::newRow("input") << HLVPMessage(InputEventMessage{u"mouseMove"_s, 10.5, 20.0, {}, {}, {}, {}});
        QTest::newRow("statistics, all fields") << HLVPMessage(fullStats());
        QTest::newRow("clipboard") << HLVPMessage(ClipboardMessage{u"line one\nline two"_s, {}});
        QTest::newRow("error") << HLVPMessage(ErrorMessage{u"notAuthenticated"_s, u"Sign in first."_s,
                                                           u"clipboard"_s, {}});
        QTest::newRow("file offer") << HLVPMessage(
            FileOfferMessage{u"t1"_s, u"report.pdf"_s, 1048576, {}});
        QTest::newRow("file complete") << HLVPMessage(FileCompleteMessage{u"t1"_s, QByteArray(32, '\x11'), {}});
        QTest::newRow("file chunk") << HLVPMessage(FileChunkMessage{u"t1"_s, 262144, QByteArray(1000, 'x'), {}});
        QTest::newRow("file result") << HLVPMessage(FileResultMessage{u"t1"_s, true, u"report (1).pdf"_s, {}, {}});
        QTest::newRow("screen request, all fields")
            << HLVPMessage(ScreenCaptureRequest{{}, {}, 7, u"lossless"_s, 60});
        const QList<HLVPScreenMonitor> monitors{{0, 0, 1920, 1080, u"HDMI-1"_s, true}, {1920, 0, 1280, 1024, {}, false}};
        QTest::newRow("stream started")
            << HLVPMessage(ScreenStreamStartedMessage{3, 3200, 1080, monitors, u"balanced"_s, 30, 2, 7});
        QTest::newRow("geometry") << HLVPMessage(ScreenGeometryMessage{3, 800, 600, monitors.mid(0, 1), {}});
        using E = HLVPScreenRect::Encoding;
        QTest::newRow("frame of every encoding") << HLVPMessage(ScreenFrameMessage{
            3, 9, 1, true,
            {{0, 0, 64, 64, E::solid, 0x336699, 0, 0, {}, {}}, {0, 64, 640, 400, E::copy, 0, 0, 80, {}, {}},
             {64, 0, 64, 64, E::zstd, 0, 0, 0, {}, "z"}, {128, 0, 64, 64, E::palette, 0, 0, 0, "abcdef", "p"},
             {192, 0, 64, 64, E::jpeg, 0, 0, 0, {}, "j"}},
            {}});
        QTest::newRow("cursor with shape") << HLVPMessage(ScreenCursorMessage{
            3, 10, 20, true, 5, ScreenCursorMessage::Shape{2, 1, 1, 0, QByteArray(8, '\x7f')}, {}});
        QTest::newRow("cursor moved") << HLVPMessage(ScreenCursorMessage{3, 0, 0, false, 5, {}, {}});
        QTest::newRow("ack") << HLVPMessage(ScreenFrameAckMessage{3, 9, {}});
        QTest::newRow("stop") << HLVPMessage(ScreenStopMessage{3, {}});
        QTest::newRow("stream ended")
            << HLVPMessage(ScreenStreamEndedMessage{3, u"agentStopped"_s, u"The screen went to sleep."_s, {}});
    }

    void everyMessageSurvivesTheWire() {
        QFETCH(HLVPMessage, message);
        const QByteArray frame = wire::encodeFrame(message);
        QBuffer device;
        device.setData(frame);
        QVERIFY(device.open(QIODevice::ReadOnly));
        const wire::FrameRead read = wire::readFrame(device, wire::maxFrameBytes);
        QCOMPARE(int(read.status), int(wire::FrameRead::Status::frame));
        QCOMPARE(device.bytesAvailable(), 0);
        const wire::DecodeResult decoded = wire::decodeMessage(read.body);
        QVERIFY2(std::holds_alternative<HLVPMessage>(decoded),
                 qPrintable(std::get_if<wire::DecodeError>(&decoded)
                                ? std::get<wire::DecodeError>(decoded).reason
                                : QString()));
        QVERIFY(std::get<HLVPMessage>(decoded) == message);
    }

    void statisticsCarryTheAbsentFieldsAsAbsent() {
        const QCborMap map = QCborValue::fromCbor(wire::encodeMessage(fullStats())).toMap();
        QCOMPARE(map.value(u"type"_s).toString(), u"systemStats"_s);
        QVERIFY(!map.contains(u"screenLocked"_s));
        QVERIFY(!map.contains(u"sequenceNumber"_s));
        QCOMPARE(map.size(), 1 + 27); // the type and every field but the two absent ones
        // Dates travel as tag 0 text; tag 1 seconds are read too.
        QVERIFY(wire::encodeMessage(fullStats()).contains(QByteArray("\xc0\x74" "2025-11-23T12:13:20Z")) ||
                wire::encodeMessage(fullStats()).contains(QByteArray("\xc0\x78\x18" "2025-11-23T12:13:20.000Z")));
        QCborMap withSeconds = map;
        withSeconds.insert(u"lastBootTime"_s, QCborValue(QCborKnownTags::UnixTime_t, 1763900000));
        const wire::DecodeResult decoded = wire::decodeMessage(cbor(withSeconds));
        QVERIFY(std::holds_alternative<HLVPMessage>(decoded));
        QCOMPARE(std::get<SystemStatsMessage>(std::get<HLVPMessage>(decoded)).lastBootTime, fullStats().lastBootTime);
    }

    void hostileBodiesAreRefusedWithAReason_data() {
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QString>("reasonPart");
        auto with = [](const QString& key, const QCborValue& value) {
            QCborMap map = handshakeMap();
            map.insert(key, value);
            return cbor(map);
        };
        QTest::newRow("not CBOR") << QByteArray("\xff\x00garbage", 9) << u"CBOR map"_s;
        QTest::newRow("a list, not a map") << QCborValue(QCborArray{1, 2}).toCbor() << u"CBOR map"_s;
        QTest::newRow("truncated map") << cbor(handshakeMap()).chopped(3) << u"not valid CBOR"_s;
        QTest::newRow("bytes after the map") << cbor(handshakeMap()) + QByteArray("\x01", 1) << u"after"_s;
        QTest::newRow("no type") << cbor(QCborMap{{u"clientName"_s, u"x"_s}}) << u"\"type\""_s;
        QTest::newRow("unknown type") << cbor(QCborMap{{u"type"_s, u"launchMissiles"_s}}) << u"unknown message type"_s;
        QTest::newRow("missing field") << cbor(QCborMap{{u"type"_s, u"handshake"_s}, {u"protocolVersion"_s, 1}})
                                       << u"missing field \"clientName\""_s;
        QTest::newRow("text where a number belongs") << with(u"protocolVersion"_s, u"1"_s)
                                                     << u"\"protocolVersion\" is not an unsigned integer"_s;
        QTest::newRow("negative version") << with(u"protocolVersion"_s, -1) << u"unsigned"_s;
        QTest::newRow("version beyond 32 bits") << with(u"protocolVersion"_s, qint64(1) << 40) << u"32 bits"_s;
        QTest::newRow("name too long") << with(u"clientName"_s, QString(257, u'a')) << u"longer than 256"_s;
        QTest::newRow("name of multi-byte characters too long")
            << with(u"clientName"_s, QString(129, QChar(0x00e9))) << u"longer than 256"_s;
        QTest::newRow("invalid UTF-8 text")
            << QByteArray("\xa3\x64type\x69handshake\x6a" "clientName\x62\xc3\x28\x6fprotocolVersion\x01")
            << u"not valid CBOR"_s;
        QTest::newRow("credentials not a map")
            << cbor(QCborMap{{u"type"_s, u"authentication"_s}, {u"method"_s, u"password"_s}, {u"credentials"_s, 5}})
            << u"\"credentials\" is not a map"_s;
        QCborMap many;
        for (int i = 0; i < 17; ++i) {
            many.insert(u"k%1"_s.arg(i), u"v"_s);
        }
        QTest::newRow("too many credentials") << cbor(QCborMap{{u"type"_s, u"authentication"_s},
                                                               {u"method"_s, u"password"_s},
                                                               {u"credentials"_s, many}})
                                              << u"more than 16"_s;
        QTest::newRow("infinite number") << cbor(QCborMap{{u"type"_s, u"inputEvent"_s},
                                                          {u"kind"_s, u"move"_s},
                                                          {u"x"_s, qInf()}})
                                         << u"finite"_s;
        QTest::newRow("short digest") << cbor(QCborMap{{u"type"_s, u"fileComplete"_s},
                                                       {u"transferID"_s, u"t"_s},
                                                       {u"sha256"_s, QByteArray(31, 'x')}})
                                      << u"32 bytes"_s;
        QCborMap wide = handshakeMap();
        for (int i = 0; i < 70; ++i) {
            wide.insert(u"extra%1"_s.arg(i), i);
        }
        QTest::newRow("too many fields") << cbor(wide) << u"more than 64 fields"_s;
        // Deep nesting inside an ignored field must not exhaust the stack.
        QByteArray deep = cbor(handshakeMap());
        deep[0] = char(0xa4); // one more pair: "x" -> [[[[...]]]]
        deep += QByteArray("\x61x", 2) + QByteArray(20000, '\x81') + QByteArray(1, '\x00');
        QTest::newRow("deep nesting") << deep << QString();
        const auto frameWith = [](const QCborMap& rect) {
            return cbor(QCborMap{{u"type"_s, u"screenFrame"_s}, {u"streamID"_s, 1}, {u"frame"_s, 1}, {u"part"_s, 0},
                                 {u"final"_s, true}, {u"rects"_s, QCborArray{rect}}});
        };
        const QCborMap rect{{u"x"_s, 0}, {u"y"_s, 0}, {u"w"_s, 4}, {u"h"_s, 4}};
        QCborMap unknownEncoding = rect;
        unknownEncoding.insert(u"encoding"_s, u"h264"_s);
        QTest::newRow("unknown rectangle encoding") << frameWith(unknownEncoding) << u"unknown encoding"_s;
        QCborMap badPalette = rect;
        badPalette.insert(u"encoding"_s, u"palette"_s);
        badPalette.insert(u"palette"_s, QByteArray(7, 'x'));
        badPalette.insert(u"data"_s, QByteArray());
        QTest::newRow("palette of partial colours") << frameWith(badPalette) << u"2 to 256 colours"_s;
        QCborMap empty = rect;
        empty.insert(u"w"_s, 0);
        empty.insert(u"encoding"_s, u"solid"_s);
        empty.insert(u"color"_s, 0);
        QTest::newRow("empty rectangle") << frameWith(empty) << u"empty rectangle"_s;
        QTest::newRow("cursor pixels short of its size")
            << cbor(QCborMap{{u"type"_s, u"screenCursor"_s}, {u"streamID"_s, 1}, {u"x"_s, 0}, {u"y"_s, 0},
                             {u"visible"_s, true}, {u"serial"_s, 1}, {u"width"_s, 2}, {u"height"_s, 2},
                             {u"hotX"_s, 0}, {u"hotY"_s, 0}, {u"pixels"_s, QByteArray(15, 'x')}})
            << u"width × height"_s;
    }

    void hostileBodiesAreRefusedWithAReason() {
        QFETCH(QByteArray, body);
        QFETCH(QString, reasonPart);
        const wire::DecodeResult decoded = wire::decodeMessage(body);
        const auto* error = std::get_if<wire::DecodeError>(&decoded);
        QVERIFY2(error, "decoded a body that should have been refused");
        QVERIFY2(error->reason.contains(reasonPart), qPrintable(error->reason));
    }

    void unknownFieldsAreIgnored() {
        QCborMap map = handshakeMap();
        map.insert(u"futureField"_s, QCborArray{1, 2, 3});
        const wire::DecodeResult decoded = wire::decodeMessage(cbor(map));
        QVERIFY(std::holds_alternative<HLVPMessage>(decoded));
        QCOMPARE(std::get<HandshakeMessage>(std::get<HLVPMessage>(decoded)).clientName, u"Viewer"_s);
    }

    void fileNamesThatAreNotUtf8ArriveAsBytes() {
        const QCborMap map{{u"type"_s, u"fileOffer"_s},
                           {u"transferID"_s, u"t"_s},
                           {u"name"_s, QByteArray("bad\xff\xfename.txt")},
                           {u"size"_s, 3}};
        const wire::DecodeResult decoded = wire::decodeMessage(cbor(map));
        QVERIFY(std::holds_alternative<HLVPMessage>(decoded));
        const QString name = std::get<FileOfferMessage>(std::get<HLVPMessage>(decoded)).name;
        QVERIFY(name.startsWith(u"bad"_s) && name.endsWith(u"name.txt"_s));
        QVERIFY(name.contains(QChar::ReplacementCharacter));
    }

    void framesAreTakenWholeAndBounded_data() {
        QTest::addColumn<QByteArray>("stream");
        QTest::addColumn<qsizetype>("limit");
        QTest::addColumn<int>("status");
        QTest::addColumn<qint64>("leftUnread");
        const QByteArray body = cbor(handshakeMap());
        const auto size = quint32(body.size());
        QTest::newRow("header only in part") << QByteArray("\x00\x00", 2) << qsizetype(1024)
                                             << int(wire::FrameRead::Status::incomplete) << qint64(2);
        QTest::newRow("body in part") << withHeader(size, body).chopped(1) << qsizetype(1024)
                                      << int(wire::FrameRead::Status::incomplete) << qint64(size + 3);
        QTest::newRow("whole frame and the start of the next")
            << withHeader(size, body) + QByteArray("\x00", 1) << qsizetype(1024)
            << int(wire::FrameRead::Status::frame) << qint64(1);
        QTest::newRow("empty frame") << withHeader(0, {}) << qsizetype(1024) << int(wire::FrameRead::Status::error)
                                     << qint64(4);
        QTest::newRow("4 GiB announced") << QByteArray("\xff\xff\xff\xff", 4) << qsizetype(1024)
                                         << int(wire::FrameRead::Status::error) << qint64(4);
        QTest::newRow("one byte over the limit")
            << withHeader(1025, {}) << qsizetype(1024) << int(wire::FrameRead::Status::error) << qint64(4);
    }

    void framesAreTakenWholeAndBounded() {
        QFETCH(QByteArray, stream);
        QFETCH(qsizetype, limit);
        QFETCH(int, status);
        QFETCH(qint64, leftUnread);
        QBuffer device;
        device.setData(stream);
        QVERIFY(device.open(QIODevice::ReadOnly));
        const wire::FrameRead read = wire::readFrame(device, limit);
        QCOMPARE(int(read.status), status);
        QCOMPARE(device.bytesAvailable(), leftUnread);
        if (read.status == wire::FrameRead::Status::error) {
            QVERIFY(!read.error.isEmpty());
        }
    }
};

QTEST_GUILESS_MAIN(TestHlvpCodec)
#include "tst_hlvp_codec.moc"
