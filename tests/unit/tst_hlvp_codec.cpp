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

// A number of its own for each field, so that fields mixed up on the wire show.
quint32 id(const char* key) {
    return quint32(qHash(QLatin1StringView(key)) % 100000) + 1;
}

// Gives every field a value other than its default, within the field's limits.
struct FillEveryField {
    void operator()(const char* key, QString& value, qsizetype = 0) { value = u"\u2603 %1"_s.arg(id(key)); }
    void operator()(const char* key, QByteArray& value, qsizetype) {
        value = QByteArray::number(id(key)) + '\xff';
    }
    void operator()(const char* key, QByteArray& value, ExactBytes size) {
        value.fill(char(id(key)), size.bytes);
    }
    void operator()(const char* key, quint32& value) { value = 4000000000U + id(key); }
    void operator()(const char* key, quint64& value) { value = (quint64(id(key)) << 40) + 1; }
    void operator()(const char* key, double& value) { value = id(key) + 0.375; }
    void operator()(const char* key, bool& value) { value = id(key) != 0; }
    void operator()(const char* key, QDateTime& value) {
        value = QDateTime::fromMSecsSinceEpoch(1763900000123 + id(key), Qt::UTC);
    }
    void operator()(const char* key, QMap<QString, QString>& value, TextMapLimits) {
        value = {{u"username"_s, u"\u00e4"_s}, {u"password"_s, QString::number(id(key))}};
    }
    void operator()(const char* key, TextOrBytes<QString> value, qsizetype) { (*this)(key, value.text); }
    void operator()(const char* key, MethodByName<HLVP::AuthenticationMethod, QString> value, qsizetype) {
        value.name = u"kerberos %1"_s.arg(id(key)); // a method this library does not know keeps its name
        value.method = HLVP::AuthenticationMethod::unknown;
    }
    template <typename Value, typename... Limit>
    void operator()(const char* key, std::optional<Value>& value, Limit... limit) {
        (*this)(key, value.emplace(), limit...);
    }
    template <typename Record> void operator()(const char*, QList<Record>& records, qsizetype) {
        Record::fields(records.emplace_back(), *this);
        Record::fields(records.emplace_back(), *this);
    }
    template <typename Enum, std::size_t count> void operator()(const char*, ByName<Enum, count> value) {
        value.value = value.names.back().first;
    }
    // Records in place keep rules between their fields: their own rows below cover them.
    template <typename Record> void operator()(InPlace, std::optional<Record>&) {}
};

struct LeaveOutOptionalFields {
    template <typename Value, typename... Limit>
    void operator()(const char*, std::optional<Value>& value, Limit...) {
        value.reset();
    }
    template <typename Record> void operator()(InPlace, std::optional<Record>& record) { record.reset(); }
    void operator()(const char*, auto&&, auto&&...) {}
};

// The message a body decodes to; nothing when it is refused.
std::optional<HLVPMessage> decoded(const QByteArray& body) {
    const wire::DecodeResult result = wire::decodeMessage(body);
    return std::holds_alternative<HLVPMessage>(result) ? std::optional(std::get<HLVPMessage>(result))
                                                       : std::nullopt;
}

QByteArray cbor(const QCborMap& map) {
    return QCborValue(map).toCbor();
}

QCborMap handshakeMap() {
    return QCborMap{{u"type"_s, u"handshake"_s}, {u"clientName"_s, u"Viewer"_s}, {u"protocolVersion"_s, 1}};
}

template <std::size_t... index> void addEveryMessageType(std::index_sequence<index...>) {
    ((QTest::newRow(messageTraitsTable[index].wireName) << HLVPMessage(std::in_place_index<index>)), ...);
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
    void everyMessageTypeSurvivesTheWire_data() {
        QTest::addColumn<HLVPMessage>("message");
        addEveryMessageType(std::make_index_sequence<std::variant_size_v<HLVPMessage>>{});
        QTest::newRow("screenCaptureRequest, all fields")
            << HLVPMessage(ScreenCaptureRequest{{}, {}, u"lossless"_s, 60, u"byPhysicalKey"_s, 7});
        const QList<HLVPScreenMonitor> monitors{{0, 0, 1920, 1080, u"HDMI-1"_s, true},
                                                {1920, 0, 1280, 1024, {}, false}};
        QTest::newRow("screenStreamStarted, two monitors")
            << HLVPMessage(ScreenStreamStartedMessage{3, 3200, 1080, monitors, u"balanced"_s, 30, 2, 7});
        using E = HLVPScreenRect::Encoding;
        QTest::newRow("screenFrame, every encoding")
            << HLVPMessage(ScreenFrameMessage{3,
                                              9,
                                              1,
                                              true,
                                              {{0, 0, 64, 64, E::solid, 0x336699, 0, 0, {}, {}},
                                               {0, 64, 640, 400, E::copy, 0, 0, 80, {}, {}},
                                               {64, 0, 64, 64, E::zstd, 0, 0, 0, {}, "z"},
                                               {128, 0, 64, 64, E::palette, 0, 0, 0, "abcdef", "p"},
                                               {192, 0, 64, 64, E::jpeg, 0, 0, 0, {}, "j"}},
                                              {}});
        QTest::newRow("screenCursor with its shape") << HLVPMessage(ScreenCursorMessage{
            3, 10, 20, true, 5, ScreenCursorMessage::Shape{2, 1, 1, 0, QByteArray(8, '\x7f')}, {}});
    }

    void everyMessageTypeSurvivesTheWire() {
        QFETCH(HLVPMessage, message);
        std::visit([](auto& m) { std::decay_t<decltype(m)>::fields(m, FillEveryField{}); }, message);
        std::visit([](auto& m) { m.sequenceNumber = 4000000000U; }, message);
        const QByteArray body = wire::encodeMessage(message);
        QCOMPARE(wire::encodeFrame(message), withHeader(quint32(body.size()), body));
        // Each row is named by its message's wire type, then what the row adds.
        QCOMPARE(QCborValue::fromCbor(body).toMap().value(u"type"_s).toString(),
                 QString::fromLatin1(QTest::currentDataTag()).section(u' ', 0, 0).remove(u','));
        QVERIFY(decoded(body) == message);

        // Without its optional fields, too.
        std::visit([](auto& m) { std::decay_t<decltype(m)>::fields(m, LeaveOutOptionalFields{}); }, message);
        std::visit([](auto& m) { m.sequenceNumber.reset(); }, message);
        QVERIFY(decoded(wire::encodeMessage(message)) == message);
    }

    void datesTravelAsTextAndAreReadFromSecondsToo() {
        SystemStatsMessage stats;
        SystemStatsMessage::fields(stats, FillEveryField{});
        const QByteArray body = wire::encodeMessage(stats);
        QVERIFY(body.contains(QByteArray("\xc0\x78\x18") +
                              stats.lastBootTime->toString(Qt::ISODateWithMs).toLatin1()));
        QCborMap withSeconds = QCborValue::fromCbor(body).toMap();
        withSeconds.insert(u"lastBootTime"_s, QCborValue(QCborKnownTags::UnixTime_t, 1763900000));
        stats.lastBootTime = QDateTime::fromSecsSinceEpoch(1763900000, Qt::UTC);
        QVERIFY(decoded(cbor(withSeconds)) == HLVPMessage(stats));
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
        QTest::newRow("unknown type")
            << cbor(QCborMap{{u"type"_s, u"launchMissiles"_s}}) << u"unknown message type"_s;
        QTest::newRow("missing field")
            << cbor(QCborMap{{u"type"_s, u"handshake"_s}, {u"protocolVersion"_s, 1}})
            << u"missing field \"clientName\""_s;
        QTest::newRow("text where a number belongs")
            << with(u"protocolVersion"_s, u"1"_s) << u"\"protocolVersion\" is not an unsigned integer"_s;
        QTest::newRow("negative version") << with(u"protocolVersion"_s, -1) << u"unsigned"_s;
        QTest::newRow("version beyond 32 bits")
            << with(u"protocolVersion"_s, qint64(1) << 40) << u"32 bits"_s;
        QTest::newRow("name too long") << with(u"clientName"_s, QString(257, u'a')) << u"longer than 256"_s;
        QTest::newRow("name of multi-byte characters too long")
            << with(u"clientName"_s, QString(129, QChar(0x00e9))) << u"longer than 256"_s;
        QTest::newRow("invalid UTF-8 text") << QByteArray("\xa3\x64type\x69handshake\x6a"
                                                          "clientName\x62\xc3\x28\x6fprotocolVersion\x01")
                                            << u"not valid CBOR"_s;
        QTest::newRow("credentials not a map")
            << cbor(QCborMap{
                   {u"type"_s, u"authentication"_s}, {u"method"_s, u"password"_s}, {u"credentials"_s, 5}})
            << u"\"credentials\" is not a map"_s;
        QCborMap many;
        for (int i = 0; i < 17; ++i) {
            many.insert(u"k%1"_s.arg(i), u"v"_s);
        }
        QTest::newRow("too many credentials")
            << cbor(QCborMap{
                   {u"type"_s, u"authentication"_s}, {u"method"_s, u"password"_s}, {u"credentials"_s, many}})
            << u"more than 16"_s;
        QTest::newRow("infinite number")
            << cbor(QCborMap{{u"type"_s, u"inputEvent"_s}, {u"kind"_s, u"move"_s}, {u"x"_s, qInf()}})
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
            return cbor(QCborMap{{u"type"_s, u"screenFrame"_s},
                                 {u"streamID"_s, 1},
                                 {u"frame"_s, 1},
                                 {u"part"_s, 0},
                                 {u"final"_s, true},
                                 {u"rects"_s, QCborArray{rect}}});
        };
        const QCborMap rect{{u"x"_s, 0}, {u"y"_s, 0}, {u"w"_s, 4}, {u"h"_s, 4}};
        QCborMap unknownEncoding = rect;
        unknownEncoding.insert(u"encoding"_s, u"h264"_s);
        QTest::newRow("unknown rectangle encoding")
            << frameWith(unknownEncoding) << u"not a known value of \"encoding\""_s;
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
        QTest::newRow("cursor pixels short of its size") << cbor(QCborMap{{u"type"_s, u"screenCursor"_s},
                                                                          {u"streamID"_s, 1},
                                                                          {u"x"_s, 0},
                                                                          {u"y"_s, 0},
                                                                          {u"visible"_s, true},
                                                                          {u"serial"_s, 1},
                                                                          {u"width"_s, 2},
                                                                          {u"height"_s, 2},
                                                                          {u"hotX"_s, 0},
                                                                          {u"hotY"_s, 0},
                                                                          {u"pixels"_s, QByteArray(15, 'x')}})
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
        QVERIFY(decoded(cbor(map)) == HLVPMessage(HandshakeMessage{u"Viewer"_s, 1, {}}));
    }

    // A file's piece is taken from the frame's own buffer, and its limit still holds.
    void largePiecesAreTakenFromTheFrameWithoutACopy() {
        const FileChunkMessage chunk{u"t"_s, 7, QByteArray(wire::maxFileChunkBytes, 'c'), {}};
        QByteArray body = wire::encodeMessage(chunk);
        const char* const frameBytes = body.constData();
        const wire::DecodeResult result = wire::decodeMessage(body);
        QVERIFY(std::holds_alternative<HLVPMessage>(result));
        const auto& decodedChunk = std::get<FileChunkMessage>(std::get<HLVPMessage>(result));
        QVERIFY(decodedChunk == chunk);
        QVERIFY(body.isEmpty());
        QVERIFY(decodedChunk.data.constData() > frameBytes &&
                decodedChunk.data.constData() < frameBytes + wire::maxFileChunkBytes);

        QCborMap tooLarge = QCborValue::fromCbor(wire::encodeMessage(chunk)).toMap();
        tooLarge.insert(u"data"_s, QByteArray(wire::maxFileChunkBytes + 1, 'c'));
        QByteArray tooLargeBody = cbor(tooLarge);
        const wire::DecodeResult refused = wire::decodeMessage(tooLargeBody);
        QVERIFY(std::holds_alternative<wire::DecodeError>(refused));
        QVERIFY(std::get<wire::DecodeError>(refused).reason.contains(u"\"data\" is longer than"_s));
    }

    void fileNamesThatAreNotUtf8ArriveAsBytes() {
        const QCborMap map{{u"type"_s, u"fileOffer"_s},
                           {u"transferID"_s, u"t"_s},
                           {u"name"_s, QByteArray("bad\xff\xfename.txt")},
                           {u"size"_s, 3}};
        const std::optional<HLVPMessage> offer = decoded(cbor(map));
        QVERIFY(offer);
        const QString name = std::get<FileOfferMessage>(*offer).name;
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
        QTest::newRow("empty frame") << withHeader(0, {}) << qsizetype(1024)
                                     << int(wire::FrameRead::Status::error) << qint64(4);
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
