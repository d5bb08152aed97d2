#include "hlvp_codec.h"
#include "hlvp_codec_screen.h"

#include <QCborArray>
#include <QCborMap>
#include <QCborStreamReader>
#include <QCborValue>
#include <QIODevice>
#include <QtEndian>

#include <limits>

using namespace Qt::StringLiterals;

namespace tellwyn {

namespace {

template <typename T>
struct Names;
#define TELLWYN_MESSAGE_NAMES(Type, wire)                                                                         \
    template <>                                                                                                   \
    struct Names<Type> {                                                                                          \
        static QString type() { return u## #Type##_s; }                                                          \
        static QString onWire() { return u##wire##_s; }                                                          \
    };
TELLWYN_MESSAGE_NAMES(HandshakeMessage, "handshake")
TELLWYN_MESSAGE_NAMES(HandshakeResponseMessage, "handshakeResponse")
TELLWYN_MESSAGE_NAMES(AuthenticationMessage, "authentication")
TELLWYN_MESSAGE_NAMES(AuthenticationResponseMessage, "authenticationResponse")
TELLWYN_MESSAGE_NAMES(DisconnectMessage, "disconnect")
TELLWYN_MESSAGE_NAMES(HeartbeatMessage, "heartbeat")
TELLWYN_MESSAGE_NAMES(HeartbeatResponseMessage, "heartbeatResponse")
TELLWYN_MESSAGE_NAMES(ScreenCaptureRequest, "screenCaptureRequest")
TELLWYN_MESSAGE_NAMES(ScreenCaptureMessage, "screenCapture")
TELLWYN_MESSAGE_NAMES(InputEventMessage, "inputEvent")
TELLWYN_MESSAGE_NAMES(SystemStatsMessage, "systemStats")
TELLWYN_MESSAGE_NAMES(ClipboardMessage, "clipboard")
TELLWYN_MESSAGE_NAMES(ClipboardRequestMessage, "clipboardRequest")
TELLWYN_MESSAGE_NAMES(ErrorMessage, "error")
TELLWYN_MESSAGE_NAMES(FileOfferMessage, "fileOffer")
TELLWYN_MESSAGE_NAMES(FileAcceptMessage, "fileAccept")
TELLWYN_MESSAGE_NAMES(FileChunkMessage, "fileChunk")
TELLWYN_MESSAGE_NAMES(FileChunkAckMessage, "fileChunkAck")
TELLWYN_MESSAGE_NAMES(FileCompleteMessage, "fileComplete")
TELLWYN_MESSAGE_NAMES(FileResultMessage, "fileResult")
TELLWYN_MESSAGE_NAMES(FileCancelMessage, "fileCancel")
TELLWYN_MESSAGE_NAMES(ScreenFrameAckMessage, "screenFrameAck")
TELLWYN_MESSAGE_NAMES(ScreenStopMessage, "screenStop")
TELLWYN_MESSAGE_NAMES(ScreenStreamStartedMessage, "screenStreamStarted")
TELLWYN_MESSAGE_NAMES(ScreenGeometryMessage, "screenGeometry")
TELLWYN_MESSAGE_NAMES(ScreenFrameMessage, "screenFrame")
TELLWYN_MESSAGE_NAMES(ScreenCursorMessage, "screenCursor")
TELLWYN_MESSAGE_NAMES(ScreenStreamEndedMessage, "screenStreamEnded")
#undef TELLWYN_MESSAGE_NAMES

} // namespace

QString messageTypeName(const HLVPMessage& message) {
    return std::visit([](const auto& m) { return Names<std::decay_t<decltype(m)>>::type(); }, message);
}

QString wireTypeName(const HLVPMessage& message) {
    return std::visit([](const auto& m) { return Names<std::decay_t<decltype(m)>>::onWire(); }, message);
}

namespace wire {

namespace {

// Builds a message map; optional fields are left out when absent.
class MapWriter {
public:
    explicit MapWriter(const QString& type) { m_map.insert(u"type"_s, type); }

    void put(const QString& key, const QString& value) { m_map.insert(key, value); }
    void put(const QString& key, bool value) { m_map.insert(key, value); }
    void put(const QString& key, double value) { m_map.insert(key, value); }
    void put(const QString& key, quint32 value) { m_map.insert(key, qint64(value)); }
    void put(const QString& key, quint64 value) {
        m_map.insert(key, qint64(std::min<quint64>(value, quint64(std::numeric_limits<qint64>::max()))));
    }
    void put(const QString& key, const QDateTime& value) {
        // Written as tag 0, an RFC 3339 text in UTC.
        m_map.insert(key, QCborValue(value.toUTC()));
    }
    void put(const QString& key, const QByteArray& value) { m_map.insert(key, value); }
    void put(const QString& key, const QCborValue& value) { m_map.insert(key, value); }
    template <typename T>
    void put(const QString& key, const std::optional<T>& value) {
        if (value) {
            put(key, *value);
        }
    }

    QCborMap map() const { return m_map; }

private:
    QCborMap m_map;
};

QCborMap encodeFields(const HandshakeMessage& m) {
    MapWriter w(u"handshake"_s);
    w.put(u"clientName"_s, m.clientName);
    w.put(u"protocolVersion"_s, m.protocolVersion);
    w.put(u"sequenceNumber"_s, m.sequenceNumber);
    return w.map();
}
QCborMap encodeFields(const HandshakeResponseMessage& m) {
    MapWriter w(u"handshakeResponse"_s);
    w.put(u"agentName"_s, m.agentName);
    w.put(u"protocolVersion"_s, m.protocolVersion);
    w.put(u"agentVersion"_s, m.agentVersion);
    w.put(u"sequenceNumber"_s, m.sequenceNumber);
    return w.map();
}
QCborMap encodeFields(const AuthenticationMessage& m) {
    MapWriter w(u"authentication"_s);
    w.put(u"method"_s, m.method == HLVP::AuthenticationMethod::unknown ? m.methodName : HLVP::toString(m.method));
    QCborMap credentials;
    for (auto it = m.credentials.cbegin(); it != m.credentials.cend(); ++it) {
        credentials.insert(it.key(), it.value());
    }
    w.put(u"credentials"_s, QCborValue(credentials));
    w.put(u"sequenceNumber"_s, m.sequenceNumber);
    return w.map();
}
QCborMap encodeFields(const AuthenticationResponseMessage& m) {
    MapWriter w(u"authenticationResponse"_s);
    w.put(u"success"_s, m.success);
    w.put(u"sessionToken"_s, m.sessionToken);
    w.put(u"errorMessage"_s, m.errorMessage);
    w.put(u"sequenceNumber"_s, m.sequenceNumber);
    return w.map();
}
QCborMap encodeFields(const DisconnectMessage& m) {
    MapWriter w(u"disconnect"_s);
    w.put(u"reason"_s, m.reason);
    w.put(u"sequenceNumber"_s, m.sequenceNumber);
    return w.map();
}
QCborMap encodeFields(const HeartbeatMessage& m) {
    MapWriter w(u"heartbeat"_s);
    w.put(u"sequenceNumber"_s, m.sequenceNumber);
    return w.map();
}
QCborMap encodeFields(const HeartbeatResponseMessage& m) {
    MapWriter w(u"heartbeatResponse"_s);
    w.put(u"sequenceNumber"_s, m.sequenceNumber);
    return w.map();
}
QCborMap encodeFields(const ScreenCaptureRequest& m) {
    MapWriter w(u"screenCaptureRequest"_s);
    w.put(u"displayID"_s, m.displayID);
    w.put(u"quality"_s, m.quality);
    w.put(u"sequenceNumber"_s, m.sequenceNumber);
    w.put(u"mode"_s, m.mode);
    w.put(u"maxFPS"_s, m.maxFPS);
    return w.map();
}
QCborMap encodeFields(const ScreenCaptureMessage& m) {
    MapWriter w(u"screenCapture"_s);
    w.put(u"displayID"_s, m.displayID);
    w.put(u"width"_s, m.width);
    w.put(u"height"_s, m.height);
    w.put(u"imageData"_s, m.imageData);
    w.put(u"sequenceNumber"_s, m.sequenceNumber);
    return w.map();
}
QCborMap encodeFields(const InputEventMessage& m) {
    MapWriter w(u"inputEvent"_s);
    w.put(u"kind"_s, m.kind);
    w.put(u"x"_s, m.x);
    w.put(u"y"_s, m.y);
    w.put(u"button"_s, m.button);
    w.put(u"keyCode"_s, m.keyCode);
    w.put(u"text"_s, m.text);
    w.put(u"sequenceNumber"_s, m.sequenceNumber);
    return w.map();
}
QCborMap encodeFields(const SystemStatsMessage& m) {
    MapWriter w(u"systemStats"_s);
    w.put(u"totalMemory"_s, m.totalMemory);
    w.put(u"freeMemory"_s, m.freeMemory);
    w.put(u"totalDiskSpace"_s, m.totalDiskSpace);
    w.put(u"freeDiskSpace"_s, m.freeDiskSpace);
    w.put(u"cpuUsage"_s, m.cpuUsage);
    w.put(u"osVersion"_s, m.osVersion);
    w.put(u"macModel"_s, m.macModel);
    w.put(u"activeProcess"_s, m.activeProcess);
    w.put(u"uptimeSeconds"_s, m.uptimeSeconds);
    w.put(u"agentVersion"_s, m.agentVersion);
    w.put(u"screenCaptureAuthorized"_s, m.screenCaptureAuthorized);
    w.put(u"accessibilityAuthorized"_s, m.accessibilityAuthorized);
    w.put(u"screenLocked"_s, m.screenLocked);
    w.put(u"primaryIPAddress"_s, m.primaryIPAddress);
    w.put(u"loggedInUser"_s, m.loggedInUser);
    w.put(u"networkName"_s, m.networkName);
    w.put(u"displayCount"_s, m.displayCount);
    w.put(u"mainDisplayResolution"_s, m.mainDisplayResolution);
    w.put(u"serialNumber"_s, m.serialNumber);
    w.put(u"hardwareUUID"_s, m.hardwareUUID);
    w.put(u"fileVaultEnabled"_s, m.fileVaultEnabled);
    w.put(u"sipEnabled"_s, m.sipEnabled);
    w.put(u"gatekeeperEnabled"_s, m.gatekeeperEnabled);
    w.put(u"mdmEnrolled"_s, m.mdmEnrolled);
    w.put(u"lastBootTime"_s, m.lastBootTime);
    w.put(u"lastSleepCause"_s, m.lastSleepCause);
    w.put(u"lastWakeCause"_s, m.lastWakeCause);
    if (m.diskVolumes) {
        QCborArray volumes;
        for (const HLVPDiskVolumeInfo& volume : *m.diskVolumes) {
            QCborMap entry;
            entry.insert(u"name"_s, volume.name);
            entry.insert(u"path"_s, volume.path);
            entry.insert(u"totalBytes"_s, qint64(std::min<quint64>(volume.totalBytes, INT64_MAX)));
            entry.insert(u"freeBytes"_s, qint64(std::min<quint64>(volume.freeBytes, INT64_MAX)));
            volumes.append(entry);
        }
        w.put(u"diskVolumes"_s, QCborValue(volumes));
    }
    w.put(u"sequenceNumber"_s, m.sequenceNumber);
    return w.map();
}
QCborMap encodeFields(const ClipboardMessage& m) {
    MapWriter w(u"clipboard"_s);
    w.put(u"text"_s, m.text);
    w.put(u"sequenceNumber"_s, m.sequenceNumber);
    return w.map();
}
QCborMap encodeFields(const ClipboardRequestMessage& m) {
    MapWriter w(u"clipboardRequest"_s);
    w.put(u"sequenceNumber"_s, m.sequenceNumber);
    return w.map();
}
QCborMap encodeFields(const ErrorMessage& m) {
    MapWriter w(u"error"_s);
    w.put(u"code"_s, m.code);
    w.put(u"message"_s, m.message);
    w.put(u"refersTo"_s, m.refersTo);
    w.put(u"sequenceNumber"_s, m.sequenceNumber);
    return w.map();
}

QCborMap encodeFields(const FileOfferMessage& m) {
    MapWriter w(u"fileOffer"_s);
    w.put(u"transferID"_s, m.transferID);
    w.put(u"name"_s, m.name);
    w.put(u"size"_s, m.size);
    w.put(u"sequenceNumber"_s, m.sequenceNumber);
    return w.map();
}
QCborMap encodeFields(const FileAcceptMessage& m) {
    MapWriter w(u"fileAccept"_s);
    w.put(u"transferID"_s, m.transferID);
    w.put(u"savedName"_s, m.savedName);
    w.put(u"windowBytes"_s, m.windowBytes);
    w.put(u"sequenceNumber"_s, m.sequenceNumber);
    return w.map();
}
QCborMap encodeFields(const FileChunkMessage& m) {
    MapWriter w(u"fileChunk"_s);
    w.put(u"transferID"_s, m.transferID);
    w.put(u"offset"_s, m.offset);
    w.put(u"data"_s, m.data);
    w.put(u"sequenceNumber"_s, m.sequenceNumber);
    return w.map();
}
QCborMap encodeFields(const FileChunkAckMessage& m) {
    MapWriter w(u"fileChunkAck"_s);
    w.put(u"transferID"_s, m.transferID);
    w.put(u"receivedBytes"_s, m.receivedBytes);
    w.put(u"sequenceNumber"_s, m.sequenceNumber);
    return w.map();
}
QCborMap encodeFields(const FileCompleteMessage& m) {
    MapWriter w(u"fileComplete"_s);
    w.put(u"transferID"_s, m.transferID);
    w.put(u"sha256"_s, m.sha256);
    w.put(u"sequenceNumber"_s, m.sequenceNumber);
    return w.map();
}
QCborMap encodeFields(const FileResultMessage& m) {
    MapWriter w(u"fileResult"_s);
    w.put(u"transferID"_s, m.transferID);
    w.put(u"success"_s, m.success);
    w.put(u"savedName"_s, m.savedName);
    w.put(u"errorMessage"_s, m.errorMessage);
    w.put(u"sequenceNumber"_s, m.sequenceNumber);
    return w.map();
}
QCborMap encodeFields(const FileCancelMessage& m) {
    MapWriter w(u"fileCancel"_s);
    w.put(u"transferID"_s, m.transferID);
    w.put(u"reason"_s, m.reason);
    w.put(u"sequenceNumber"_s, m.sequenceNumber);
    return w.map();
}

// Reads typed fields from a message map; the first problem is kept and later reads do nothing.
class MapReader {
public:
    explicit MapReader(const QCborMap& map) : m_map(map) {}

    bool ok() const { return m_error.isEmpty(); }
    QString error() const { return m_error; }

    QString text(const QString& key, qsizetype maxBytes = maxTextBytes) { return requireValue(key, &MapReader::readText, maxBytes); }
    std::optional<QString> optionalText(const QString& key, qsizetype maxBytes = maxTextBytes) {
        return optionalValue(key, &MapReader::readText, maxBytes);
    }
    bool boolean(const QString& key) { return requireValue(key, &MapReader::readBool, 0); }
    std::optional<bool> optionalBool(const QString& key) { return optionalValue(key, &MapReader::readBool, 0); }
    quint64 unsigned64(const QString& key) { return requireValue(key, &MapReader::readUnsigned, 0); }
    std::optional<quint64> optionalUnsigned64(const QString& key) {
        return optionalValue(key, &MapReader::readUnsigned, 0);
    }
    quint32 unsigned32(const QString& key) { return narrow(key, unsigned64(key)); }
    std::optional<quint32> optionalUnsigned32(const QString& key) {
        const auto value = optionalUnsigned64(key);
        return value ? std::optional<quint32>(narrow(key, *value)) : std::nullopt;
    }
    double number(const QString& key) { return requireValue(key, &MapReader::readDouble, 0); }
    std::optional<double> optionalNumber(const QString& key) { return optionalValue(key, &MapReader::readDouble, 0); }
    std::optional<QDateTime> optionalDate(const QString& key) { return optionalValue(key, &MapReader::readDate, 0); }
    QByteArray bytes(const QString& key, qsizetype maxBytes) { return requireValue(key, &MapReader::readBytes, maxBytes); }
    // A file name may come as text or, for names that are not valid UTF-8, as the raw bytes.
    QString textOrBytes(const QString& key, qsizetype maxBytes) {
        const QCborValue value = m_map.value(key);
        if (value.isByteArray()) {
            const QByteArray raw = bytes(key, maxBytes);
            return QString::fromUtf8(raw);
        }
        return text(key, maxBytes);
    }

    QCborValue raw(const QString& key) const { return m_map.value(key); }
    void fail(const QString& reason) {
        if (m_error.isEmpty()) {
            m_error = reason;
        }
    }

private:
    template <typename T>
    T requireValue(const QString& key, std::optional<T> (MapReader::*read)(const QString&, const QCborValue&, qsizetype),
                   qsizetype limit) {
        if (!m_map.contains(key)) {
            fail(u"missing field \"%1\""_s.arg(key));
            return T{};
        }
        return (this->*read)(key, m_map.value(key), limit).value_or(T{});
    }
    template <typename T>
    std::optional<T> optionalValue(const QString& key,
                                   std::optional<T> (MapReader::*read)(const QString&, const QCborValue&, qsizetype),
                                   qsizetype limit) {
        if (!m_map.contains(key)) {
            return std::nullopt;
        }
        return (this->*read)(key, m_map.value(key), limit);
    }

    std::optional<QString> readText(const QString& key, const QCborValue& value, qsizetype maxBytes) {
        if (!value.isString()) {
            fail(u"field \"%1\" is not text"_s.arg(key));
            return std::nullopt;
        }
        QString text = value.toString();
        if (text.toUtf8().size() > maxBytes) {
            fail(u"field \"%1\" is longer than %2 bytes"_s.arg(key).arg(maxBytes));
            return std::nullopt;
        }
        return text;
    }
    std::optional<QByteArray> readBytes(const QString& key, const QCborValue& value, qsizetype maxBytes) {
        if (!value.isByteArray()) {
            fail(u"field \"%1\" is not a byte string"_s.arg(key));
            return std::nullopt;
        }
        QByteArray bytes = value.toByteArray();
        if (bytes.size() > maxBytes) {
            fail(u"field \"%1\" is longer than %2 bytes"_s.arg(key).arg(maxBytes));
            return std::nullopt;
        }
        return bytes;
    }
    std::optional<bool> readBool(const QString& key, const QCborValue& value, qsizetype) {
        if (!value.isBool()) {
            fail(u"field \"%1\" is not a Boolean"_s.arg(key));
            return std::nullopt;
        }
        return value.toBool();
    }
    std::optional<quint64> readUnsigned(const QString& key, const QCborValue& value, qsizetype) {
        if (!value.isInteger() || value.toInteger() < 0) {
            fail(u"field \"%1\" is not an unsigned integer"_s.arg(key));
            return std::nullopt;
        }
        return quint64(value.toInteger());
    }
    std::optional<double> readDouble(const QString& key, const QCborValue& value, qsizetype) {
        if (!value.isDouble() && !value.isInteger()) {
            fail(u"field \"%1\" is not a number"_s.arg(key));
            return std::nullopt;
        }
        const double number = value.toDouble();
        if (!std::isfinite(number)) {
            fail(u"field \"%1\" is not a finite number"_s.arg(key));
            return std::nullopt;
        }
        return number;
    }
    std::optional<QDateTime> readDate(const QString& key, const QCborValue& value, qsizetype) {
        // The CBOR reader turns both tag 0 (text) and tag 1 (seconds) into a date; anything else
        // under those tags is invalid.
        if (!value.isDateTime() || !value.toDateTime().isValid()) {
            fail(u"field \"%1\" is not a date (tag 0 or tag 1)"_s.arg(key));
            return std::nullopt;
        }
        return value.toDateTime().toUTC();
    }
    quint32 narrow(const QString& key, quint64 value) {
        if (value > std::numeric_limits<quint32>::max()) {
            fail(u"field \"%1\" does not fit in 32 bits"_s.arg(key));
            return 0;
        }
        return quint32(value);
    }

    const QCborMap& m_map;
    QString m_error;
};

std::optional<HLVPMessage> decodeFields(const QString& type, MapReader& r) {
    const auto sequence = [&] { return r.optionalUnsigned32(u"sequenceNumber"_s); };
    if (type == u"handshake"_s) {
        return HandshakeMessage{r.text(u"clientName"_s, maxNameBytes), r.unsigned32(u"protocolVersion"_s), sequence()};
    }
    if (type == u"handshakeResponse"_s) {
        return HandshakeResponseMessage{r.text(u"agentName"_s, maxNameBytes), r.unsigned32(u"protocolVersion"_s),
                                        r.text(u"agentVersion"_s), sequence()};
    }
    if (type == u"authentication"_s) {
        AuthenticationMessage message;
        message.methodName = r.text(u"method"_s, maxNameBytes);
        message.method = HLVP::authenticationMethodFromString(message.methodName);
        const QCborValue credentials = r.raw(u"credentials"_s);
        if (!credentials.isMap()) {
            r.fail(u"field \"credentials\" is not a map"_s);
            return std::nullopt;
        }
        const QCborMap map = credentials.toMap();
        if (map.size() > maxCredentialEntries) {
            r.fail(u"field \"credentials\" has more than %1 entries"_s.arg(maxCredentialEntries));
            return std::nullopt;
        }
        for (auto it = map.constBegin(); it != map.constEnd(); ++it) {
            const QString key = it.key().toString();
            if (!it.key().isString() || !it.value().isString() || key.toUtf8().size() > maxCredentialKeyBytes ||
                it.value().toString().toUtf8().size() > maxCredentialValueBytes) {
                r.fail(u"field \"credentials\" holds an entry that is not short text to short text"_s);
                return std::nullopt;
            }
            message.credentials.insert(key, it.value().toString());
        }
        message.sequenceNumber = sequence();
        return message;
    }
    if (type == u"authenticationResponse"_s) {
        return AuthenticationResponseMessage{r.boolean(u"success"_s), r.optionalText(u"sessionToken"_s),
                                             r.optionalText(u"errorMessage"_s), sequence()};
    }
    if (type == u"disconnect"_s) {
        return DisconnectMessage{r.text(u"reason"_s), sequence()};
    }
    if (type == u"heartbeat"_s) {
        return HeartbeatMessage{sequence()};
    }
    if (type == u"heartbeatResponse"_s) {
        return HeartbeatResponseMessage{sequence()};
    }
    if (type == u"screenCaptureRequest"_s) {
        return ScreenCaptureRequest{r.optionalUnsigned32(u"displayID"_s), r.optionalNumber(u"quality"_s), sequence(),
                                    r.optionalText(u"mode"_s, maxNameBytes), r.optionalUnsigned32(u"maxFPS"_s)};
    }
    if (type == u"screenCapture"_s) {
        return ScreenCaptureMessage{r.unsigned32(u"displayID"_s), r.unsigned32(u"width"_s), r.unsigned32(u"height"_s),
                                    r.bytes(u"imageData"_s, maxFrameBytes), sequence()};
    }
    if (type == u"inputEvent"_s) {
        return InputEventMessage{r.text(u"kind"_s, maxNameBytes), r.optionalNumber(u"x"_s), r.optionalNumber(u"y"_s),
                                 r.optionalUnsigned32(u"button"_s), r.optionalUnsigned32(u"keyCode"_s),
                                 r.optionalText(u"text"_s), sequence()};
    }
    if (type == u"systemStats"_s) {
        SystemStatsMessage m;
        m.totalMemory = r.unsigned64(u"totalMemory"_s);
        m.freeMemory = r.unsigned64(u"freeMemory"_s);
        m.totalDiskSpace = r.unsigned64(u"totalDiskSpace"_s);
        m.freeDiskSpace = r.unsigned64(u"freeDiskSpace"_s);
        m.cpuUsage = r.number(u"cpuUsage"_s);
        m.osVersion = r.text(u"osVersion"_s);
        m.macModel = r.text(u"macModel"_s);
        m.activeProcess = r.text(u"activeProcess"_s);
        m.uptimeSeconds = r.optionalUnsigned64(u"uptimeSeconds"_s);
        m.agentVersion = r.optionalText(u"agentVersion"_s);
        m.screenCaptureAuthorized = r.optionalBool(u"screenCaptureAuthorized"_s);
        m.accessibilityAuthorized = r.optionalBool(u"accessibilityAuthorized"_s);
        m.screenLocked = r.optionalBool(u"screenLocked"_s);
        m.primaryIPAddress = r.optionalText(u"primaryIPAddress"_s);
        m.loggedInUser = r.optionalText(u"loggedInUser"_s);
        m.networkName = r.optionalText(u"networkName"_s);
        m.displayCount = r.optionalUnsigned32(u"displayCount"_s);
        m.mainDisplayResolution = r.optionalText(u"mainDisplayResolution"_s);
        m.serialNumber = r.optionalText(u"serialNumber"_s);
        m.hardwareUUID = r.optionalText(u"hardwareUUID"_s);
        m.fileVaultEnabled = r.optionalBool(u"fileVaultEnabled"_s);
        m.sipEnabled = r.optionalBool(u"sipEnabled"_s);
        m.gatekeeperEnabled = r.optionalBool(u"gatekeeperEnabled"_s);
        m.mdmEnrolled = r.optionalBool(u"mdmEnrolled"_s);
        m.lastBootTime = r.optionalDate(u"lastBootTime"_s);
        m.lastSleepCause = r.optionalText(u"lastSleepCause"_s);
        m.lastWakeCause = r.optionalText(u"lastWakeCause"_s);
        const QCborValue volumes = r.raw(u"diskVolumes"_s);
        if (!volumes.isUndefined()) {
            if (!volumes.isArray() || volumes.toArray().size() > maxDiskVolumes) {
                r.fail(u"field \"diskVolumes\" is not a list of at most %1 volumes"_s.arg(maxDiskVolumes));
                return std::nullopt;
            }
            QList<HLVPDiskVolumeInfo> list;
            for (const QCborValue& entry : volumes.toArray()) {
                if (!entry.isMap()) {
                    r.fail(u"a disk volume is not a map"_s);
                    return std::nullopt;
                }
                const QCborMap volumeMap = entry.toMap();
                MapReader volume(volumeMap);
                list.append({volume.text(u"name"_s, maxNameBytes), volume.text(u"path"_s),
                             volume.unsigned64(u"totalBytes"_s), volume.unsigned64(u"freeBytes"_s)});
                if (!volume.ok()) {
                    r.fail(u"disk volume: "_s + volume.error());
                    return std::nullopt;
                }
            }
            m.diskVolumes = list;
        }
        m.sequenceNumber = sequence();
        return m;
    }
    if (type == u"clipboard"_s) {
        // Bounded by the frame here; the receiver refuses texts over the clipboard limit itself.
        return ClipboardMessage{r.text(u"text"_s, maxFrameBytes), sequence()};
    }
    if (type == u"clipboardRequest"_s) {
        return ClipboardRequestMessage{sequence()};
    }
    if (type == u"error"_s) {
        return ErrorMessage{r.text(u"code"_s, maxNameBytes), r.text(u"message"_s), r.optionalText(u"refersTo"_s, maxNameBytes),
                            sequence()};
    }
    if (type == u"fileOffer"_s) {
        return FileOfferMessage{r.text(u"transferID"_s, maxTransferIDBytes),
                                r.textOrBytes(u"name"_s, maxFileNameBytes), r.unsigned64(u"size"_s), sequence()};
    }
    if (type == u"fileAccept"_s) {
        return FileAcceptMessage{r.text(u"transferID"_s, maxTransferIDBytes), r.text(u"savedName"_s, maxFileNameBytes),
                                 r.unsigned32(u"windowBytes"_s), sequence()};
    }
    if (type == u"fileChunk"_s) {
        return FileChunkMessage{r.text(u"transferID"_s, maxTransferIDBytes), r.unsigned64(u"offset"_s),
                                r.bytes(u"data"_s, maxFileChunkBytes), sequence()};
    }
    if (type == u"fileChunkAck"_s) {
        return FileChunkAckMessage{r.text(u"transferID"_s, maxTransferIDBytes), r.unsigned64(u"receivedBytes"_s),
                                   sequence()};
    }
    if (type == u"fileComplete"_s) {
        FileCompleteMessage m{r.text(u"transferID"_s, maxTransferIDBytes), r.bytes(u"sha256"_s, sha256Bytes),
                              sequence()};
        if (r.ok() && m.sha256.size() != sha256Bytes) {
            r.fail(u"field \"sha256\" is not %1 bytes"_s.arg(sha256Bytes));
        }
        return m;
    }
    if (type == u"fileResult"_s) {
        return FileResultMessage{r.text(u"transferID"_s, maxTransferIDBytes), r.boolean(u"success"_s),
                                 r.optionalText(u"savedName"_s, maxFileNameBytes), r.optionalText(u"errorMessage"_s),
                                 sequence()};
    }
    if (type == u"fileCancel"_s) {
        return FileCancelMessage{r.text(u"transferID"_s, maxTransferIDBytes), r.text(u"reason"_s), sequence()};
    }
    r.fail(u"unknown message type \"%1\""_s.arg(type.left(64)));
    return std::nullopt;
}

} // namespace

QByteArray encodeMessage(const HLVPMessage& message) {
    return std::visit([](const auto& m) { return QCborValue(encodeFields(m)).toCbor(); }, message);
}

QByteArray encodeFrame(const HLVPMessage& message) {
    const QByteArray body = encodeMessage(message);
    QByteArray frame(frameHeaderBytes, Qt::Uninitialized);
    qToBigEndian(quint32(body.size()), frame.data());
    return frame + body;
}

DecodeResult decodeMessage(QByteArrayView body) {
    QCborStreamReader reader(reinterpret_cast<const quint8*>(body.data()), body.size());
    if (!reader.isMap()) {
        return DecodeError{u"the frame does not hold a CBOR map"_s};
    }
    const QCborValue value = QCborValue::fromCbor(reader);
    if (reader.lastError() != QCborError::NoError) {
        return DecodeError{u"the frame is not valid CBOR: "_s + reader.lastError().toString()};
    }
    if (reader.currentOffset() != body.size()) {
        return DecodeError{u"the frame has bytes after its CBOR map"_s};
    }
    const QCborMap map = value.toMap();
    if (map.size() > maxMapEntries) {
        return DecodeError{u"the message has more than %1 fields"_s.arg(maxMapEntries)};
    }
    const QCborValue type = map.value(u"type"_s);
    if (!type.isString()) {
        return DecodeError{u"the message has no text field \"type\""_s};
    }
    if (auto screen = decodeScreenMessage(type.toString(), map)) {
        if (auto* reason = std::get_if<QString>(&*screen)) {
            return DecodeError{std::move(*reason)};
        }
        return std::get<HLVPMessage>(std::move(*screen));
    }
    MapReader fields(map);
    std::optional<HLVPMessage> message = decodeFields(type.toString(), fields);
    if (!fields.ok() || !message) {
        return DecodeError{fields.error()};
    }
    return *message;
}

FrameRead readFrame(QIODevice& device, qsizetype maxBytes) {
    FrameRead result;
    if (device.bytesAvailable() < frameHeaderBytes) {
        return result;
    }
    char header[frameHeaderBytes];
    if (device.peek(header, frameHeaderBytes) != frameHeaderBytes) {
        return result;
    }
    const quint32 length = qFromBigEndian<quint32>(header);
    if (length == 0 || qint64(length) > qint64(maxBytes)) {
        result.status = FrameRead::Status::error;
        result.error = length == 0 ? u"empty frame"_s
                                   : u"frame of %1 bytes exceeds the limit of %2 bytes"_s.arg(length).arg(maxBytes);
        return result;
    }
    if (device.bytesAvailable() < frameHeaderBytes + qint64(length)) {
        return result;
    }
    device.skip(frameHeaderBytes);
    result.body = device.read(length);
    result.status = FrameRead::Status::frame;
    return result;
}

} // namespace wire
} // namespace tellwyn
