#pragma once

#include "hlvp.h"
#include "hlvp_screen_messages.h"

#include <QByteArray>
#include <QDateTime>
#include <QList>
#include <QMap>
#include <QString>

#include <optional>
#include <variant>

namespace tellwyn {

// The messages of the HLVP wire protocol. Field names are the CBOR map keys on the wire
// (docs/protocol.md); optional fields are left out of the map when absent.

struct HandshakeMessage {
    QString clientName;
    quint32 protocolVersion = HLVP::protocolVersion;
    std::optional<quint32> sequenceNumber;
    friend bool operator==(const HandshakeMessage&, const HandshakeMessage&) = default;
};

// The agent's answer to a handshake.
struct HandshakeResponseMessage {
    QString agentName;
    quint32 protocolVersion = HLVP::protocolVersion;
    QString agentVersion;
    std::optional<quint32> sequenceNumber;
    friend bool operator==(const HandshakeResponseMessage&, const HandshakeResponseMessage&) = default;
};

struct AuthenticationMessage {
    HLVP::AuthenticationMethod method = HLVP::AuthenticationMethod::password;
    QString methodName; // as sent; names an unknown method too
    QMap<QString, QString> credentials;
    std::optional<quint32> sequenceNumber;
    friend bool operator==(const AuthenticationMessage&, const AuthenticationMessage&) = default;
};

struct AuthenticationResponseMessage {
    bool success = false;
    std::optional<QString> sessionToken;
    std::optional<QString> errorMessage;
    std::optional<quint32> sequenceNumber;
    friend bool operator==(const AuthenticationResponseMessage&, const AuthenticationResponseMessage&) = default;
};

struct DisconnectMessage {
    QString reason;
    std::optional<quint32> sequenceNumber;
    friend bool operator==(const DisconnectMessage&, const DisconnectMessage&) = default;
};

struct HeartbeatMessage {
    std::optional<quint32> sequenceNumber;
    friend bool operator==(const HeartbeatMessage&, const HeartbeatMessage&) = default;
};

struct HeartbeatResponseMessage {
    std::optional<quint32> sequenceNumber;
    friend bool operator==(const HeartbeatResponseMessage&, const HeartbeatResponseMessage&) = default;
};

// Starts a screen stream: one display or all, "lossless" or "balanced", a frame-rate cap.
struct ScreenCaptureRequest {
    std::optional<quint32> displayID;
    std::optional<double> quality; // older viewers: 1.0 is lossless
    std::optional<quint32> sequenceNumber;
    std::optional<QString> mode;
    std::optional<quint32> maxFPS;
    friend bool operator==(const ScreenCaptureRequest&, const ScreenCaptureRequest&) = default;
};

// One picture of a display, as JPEG.
struct ScreenCaptureMessage {
    quint32 displayID = 0;
    quint32 width = 0;
    quint32 height = 0;
    QByteArray imageData;
    std::optional<quint32> sequenceNumber;
    friend bool operator==(const ScreenCaptureMessage&, const ScreenCaptureMessage&) = default;
};

struct InputEventMessage {
    QString kind;
    std::optional<double> x;
    std::optional<double> y;
    std::optional<quint32> button;
    std::optional<quint32> keyCode;
    std::optional<QString> text;
    std::optional<quint32> sequenceNumber;
    friend bool operator==(const InputEventMessage&, const InputEventMessage&) = default;
};

struct HLVPDiskVolumeInfo {
    QString name;
    QString path;
    quint64 totalBytes = 0;
    quint64 freeBytes = 0;
    friend bool operator==(const HLVPDiskVolumeInfo&, const HLVPDiskVolumeInfo&) = default;
};

struct SystemStatsMessage {
    quint64 totalMemory = 0;
    quint64 freeMemory = 0;
    quint64 totalDiskSpace = 0;
    quint64 freeDiskSpace = 0;
    double cpuUsage = 0.0;
    QString osVersion;
    QString macModel;
    QString activeProcess;
    std::optional<quint64> uptimeSeconds;
    std::optional<QString> agentVersion;
    std::optional<bool> screenCaptureAuthorized;
    std::optional<bool> accessibilityAuthorized;
    std::optional<bool> screenLocked;
    std::optional<QString> primaryIPAddress;
    std::optional<QString> loggedInUser;
    std::optional<QString> networkName;
    std::optional<quint32> displayCount;
    std::optional<QString> mainDisplayResolution;
    std::optional<QString> serialNumber;
    std::optional<QString> hardwareUUID;
    std::optional<bool> fileVaultEnabled;
    std::optional<bool> sipEnabled;
    std::optional<bool> gatekeeperEnabled;
    std::optional<bool> mdmEnrolled;
    std::optional<QDateTime> lastBootTime;
    std::optional<QString> lastSleepCause;
    std::optional<QString> lastWakeCause;
    std::optional<QList<HLVPDiskVolumeInfo>> diskVolumes;
    std::optional<quint32> sequenceNumber;
    friend bool operator==(const SystemStatsMessage&, const SystemStatsMessage&) = default;
};

// Clipboard text in either direction.
struct ClipboardMessage {
    QString text;
    std::optional<quint32> sequenceNumber;
    friend bool operator==(const ClipboardMessage&, const ClipboardMessage&) = default;
};

// A viewer asks for the machine's current clipboard text; answered with a ClipboardMessage.
struct ClipboardRequestMessage {
    std::optional<quint32> sequenceNumber;
    friend bool operator==(const ClipboardRequestMessage&, const ClipboardRequestMessage&) = default;
};

// A refusal or protocol error from the agent. `code` is one of the codes in docs/protocol.md.
struct ErrorMessage {
    QString code;
    QString message;
    std::optional<QString> refersTo; // the wire type of the message that was refused
    std::optional<quint32> sequenceNumber;
    friend bool operator==(const ErrorMessage&, const ErrorMessage&) = default;
};

// File upload from a viewer: an offer, chunks within the window the agent acknowledges, then
// completion, answered with the result. Either side may cancel.
struct FileOfferMessage {
    QString transferID;
    QString name;        // as the viewer gives it; made safe by the agent before use
    quint64 size = 0;
    std::optional<quint32> sequenceNumber;
    friend bool operator==(const FileOfferMessage&, const FileOfferMessage&) = default;
};

struct FileAcceptMessage {
    QString transferID;
    QString savedName;   // the name the file will have in the agent's folder
    quint32 windowBytes = 0;
    std::optional<quint32> sequenceNumber;
    friend bool operator==(const FileAcceptMessage&, const FileAcceptMessage&) = default;
};

struct FileChunkMessage {
    QString transferID;
    quint64 offset = 0;
    QByteArray data;
    std::optional<quint32> sequenceNumber;
    friend bool operator==(const FileChunkMessage&, const FileChunkMessage&) = default;
};

struct FileChunkAckMessage {
    QString transferID;
    quint64 receivedBytes = 0;
    std::optional<quint32> sequenceNumber;
    friend bool operator==(const FileChunkAckMessage&, const FileChunkAckMessage&) = default;
};

struct FileCompleteMessage {
    QString transferID;
    QByteArray sha256; // of the whole file, 32 bytes
    std::optional<quint32> sequenceNumber;
    friend bool operator==(const FileCompleteMessage&, const FileCompleteMessage&) = default;
};

struct FileResultMessage {
    QString transferID;
    bool success = false;
    std::optional<QString> savedName;
    std::optional<QString> errorMessage;
    std::optional<quint32> sequenceNumber;
    friend bool operator==(const FileResultMessage&, const FileResultMessage&) = default;
};

struct FileCancelMessage {
    QString transferID;
    QString reason;
    std::optional<quint32> sequenceNumber;
    friend bool operator==(const FileCancelMessage&, const FileCancelMessage&) = default;
};

using HLVPMessage =
    std::variant<HandshakeMessage, HandshakeResponseMessage, AuthenticationMessage, AuthenticationResponseMessage,
                 DisconnectMessage, HeartbeatMessage, HeartbeatResponseMessage, ScreenCaptureRequest, ScreenCaptureMessage,
                 InputEventMessage, SystemStatsMessage, ClipboardMessage, ClipboardRequestMessage, ErrorMessage,
                 FileOfferMessage,
                 FileAcceptMessage, FileChunkMessage, FileChunkAckMessage, FileCompleteMessage, FileResultMessage,
                 FileCancelMessage, ScreenFrameAckMessage, ScreenStopMessage, ScreenStreamStartedMessage,
                 ScreenGeometryMessage, ScreenFrameMessage, ScreenCursorMessage, ScreenStreamEndedMessage>;

// The unqualified type name, as log lines write it ("HandshakeMessage").
QString messageTypeName(const HLVPMessage& message);
// The type as written on the wire ("handshake").
QString wireTypeName(const HLVPMessage& message);

} // namespace tellwyn
