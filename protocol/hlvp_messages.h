#pragma once

#include "hlvp.h"
#include "hlvp_limits.h"
#include "hlvp_screen_messages.h"

#include <QByteArray>
#include <QDateTime>
#include <QLatin1StringView>
#include <QList>
#include <QMap>
#include <QString>
#include <array>
#include <optional>
#include <string_view>
#include <utility>
#include <variant>

namespace tellwyn {

// The messages of the HLVP wire protocol (docs/protocol.md). Each message type is declared once,
// in its struct below:
//   - `traits`: the name on the wire, who sends it, whether a viewer may send it before its sign-in
//     is accepted, and the name log lines use;
//   - its members, the last one `sequenceNumber` (every message may carry one);
//   - `fields(m, field)`: `field("key", m.member[, limit])` for every other member, in wire order.
//     A std::optional member is left out of the map when absent and may be missing when read.
// The name table, the filters of HLVPServerClient and the codec's dispatch all derive from these.
//
// To add a message type: declare its struct like the ones below, list it in HLVPMessage, and handle
// it where it arrives (HLVPServerClient::handleMessage for what a viewer sends). The round-trip test
// walks every type in HLVPMessage by itself.

struct HandshakeMessage {
    static constexpr MessageTraits traits{"handshake", Direction::viewerToAgent, BeforeSignIn::allowed,
                                          "HandshakeMessage"};
    QString clientName;
    quint32 protocolVersion = HLVP::protocolVersion;
    std::optional<quint32> sequenceNumber;

    static void fields(auto& m, auto&& field) {
        field("clientName", m.clientName, wire::maxNameBytes);
        field("protocolVersion", m.protocolVersion);
    }
    friend bool operator==(const HandshakeMessage&, const HandshakeMessage&) = default;
};

// The agent's answer to a handshake.
struct HandshakeResponseMessage {
    static constexpr MessageTraits traits{"handshakeResponse", Direction::agentToViewer,
                                          BeforeSignIn::refused, "HandshakeResponseMessage"};
    QString agentName;
    quint32 protocolVersion = HLVP::protocolVersion;
    QString agentVersion;
    std::optional<quint32> sequenceNumber;

    static void fields(auto& m, auto&& field) {
        field("agentName", m.agentName, wire::maxNameBytes);
        field("protocolVersion", m.protocolVersion);
        field("agentVersion", m.agentVersion);
    }
    friend bool operator==(const HandshakeResponseMessage&, const HandshakeResponseMessage&) = default;
};

struct AuthenticationMessage {
    static constexpr MessageTraits traits{"authentication", Direction::viewerToAgent, BeforeSignIn::allowed,
                                          "AuthenticationMessage"};
    HLVP::AuthenticationMethod method = HLVP::AuthenticationMethod::password;
    QString methodName; // as sent; names an unknown method too
    QMap<QString, QString> credentials;
    std::optional<quint32> sequenceNumber;

    static void fields(auto& m, auto&& field) {
        field("method", methodByName(m.method, m.methodName), wire::maxNameBytes);
        field("credentials", m.credentials,
              TextMapLimits{wire::maxCredentialEntries, wire::maxCredentialKeyBytes,
                            wire::maxCredentialValueBytes});
    }
    friend bool operator==(const AuthenticationMessage&, const AuthenticationMessage&) = default;
};

struct AuthenticationResponseMessage {
    static constexpr MessageTraits traits{"authenticationResponse", Direction::agentToViewer,
                                          BeforeSignIn::refused, "AuthenticationResponseMessage"};
    bool success = false;
    std::optional<QString> sessionToken;
    std::optional<QString> errorMessage;
    std::optional<quint32> sequenceNumber;

    static void fields(auto& m, auto&& field) {
        field("success", m.success);
        field("sessionToken", m.sessionToken);
        field("errorMessage", m.errorMessage);
    }
    friend bool operator==(const AuthenticationResponseMessage&,
                           const AuthenticationResponseMessage&) = default;
};

struct DisconnectMessage {
    static constexpr MessageTraits traits{"disconnect", Direction::both, BeforeSignIn::allowed,
                                          "DisconnectMessage"};
    QString reason;
    std::optional<quint32> sequenceNumber;

    static void fields(auto& m, auto&& field) { field("reason", m.reason); }
    friend bool operator==(const DisconnectMessage&, const DisconnectMessage&) = default;
};

struct HeartbeatMessage {
    static constexpr MessageTraits traits{"heartbeat", Direction::both, BeforeSignIn::allowed,
                                          "HeartbeatMessage"};
    std::optional<quint32> sequenceNumber;

    static void fields(auto&, auto&&) {}
    friend bool operator==(const HeartbeatMessage&, const HeartbeatMessage&) = default;
};

struct HeartbeatResponseMessage {
    static constexpr MessageTraits traits{"heartbeatResponse", Direction::both, BeforeSignIn::allowed,
                                          "HeartbeatResponseMessage"};
    std::optional<quint32> sequenceNumber;

    static void fields(auto&, auto&&) {}
    friend bool operator==(const HeartbeatResponseMessage&, const HeartbeatResponseMessage&) = default;
};

// Starts a screen stream: one display or all, "lossless" or "balanced", a frame-rate cap.
struct ScreenCaptureRequest {
    static constexpr MessageTraits traits{"screenCaptureRequest", Direction::viewerToAgent,
                                          BeforeSignIn::refused, "ScreenCaptureRequest"};
    std::optional<quint32> displayID;
    std::optional<double> quality; // older viewers: 1.0 is lossless
    std::optional<QString> mode;   // "lossless" or "balanced"; absent: from `quality`
    std::optional<quint32> maxFPS;
    std::optional<QString> keyMode; // "bySymbol" (absent) or "byPhysicalKey": how keys are typed
    std::optional<quint32> sequenceNumber;

    static void fields(auto& m, auto&& field) {
        field("displayID", m.displayID);
        field("quality", m.quality);
        field("mode", m.mode, wire::maxNameBytes);
        field("maxFPS", m.maxFPS);
        field("keyMode", m.keyMode, wire::maxNameBytes);
    }
    friend bool operator==(const ScreenCaptureRequest&, const ScreenCaptureRequest&) = default;
};

// One picture of a display, as JPEG.
struct ScreenCaptureMessage {
    static constexpr MessageTraits traits{"screenCapture", Direction::agentToViewer, BeforeSignIn::refused,
                                          "ScreenCaptureMessage"};
    quint32 displayID = 0;
    quint32 width = 0;
    quint32 height = 0;
    QByteArray imageData;
    std::optional<quint32> sequenceNumber;

    static void fields(auto& m, auto&& field) {
        field("displayID", m.displayID);
        field("width", m.width);
        field("height", m.height);
        field("imageData", m.imageData, wire::maxFrameBytes);
    }
    friend bool operator==(const ScreenCaptureMessage&, const ScreenCaptureMessage&) = default;
};

struct InputEventMessage {
    static constexpr MessageTraits traits{"inputEvent", Direction::viewerToAgent, BeforeSignIn::refused,
                                          "InputEventMessage"};
    QString kind;            // pointerMove, buttonPress, buttonRelease, wheel, keyPress, keyRelease, text
    std::optional<double> x; // the pointer, in the stream's pixels
    std::optional<double> y;
    std::optional<quint32> button;  // 1 left, 2 middle, 3 right, 8 back, 9 forward
    std::optional<quint32> keyCode; // the key's place: a Linux evdev code
    std::optional<QString> text;
    std::optional<quint32> keysym; // the key's symbol: an X keysym
    std::optional<double> wheelX;  // 120 a click, positive to the left
    std::optional<double> wheelY;  // 120 a click, positive up
    std::optional<quint32> sequenceNumber;

    static void fields(auto& m, auto&& field) {
        field("kind", m.kind, wire::maxNameBytes);
        field("x", m.x);
        field("y", m.y);
        field("button", m.button);
        field("keyCode", m.keyCode);
        field("text", m.text);
        field("keysym", m.keysym);
        field("wheelX", m.wheelX);
        field("wheelY", m.wheelY);
    }
    friend bool operator==(const InputEventMessage&, const InputEventMessage&) = default;
};

struct HLVPDiskVolumeInfo {
    QString name;
    QString path;
    quint64 totalBytes = 0;
    quint64 freeBytes = 0;

    static void fields(auto& v, auto&& field) {
        field("name", v.name, wire::maxNameBytes);
        field("path", v.path);
        field("totalBytes", v.totalBytes);
        field("freeBytes", v.freeBytes);
    }
    friend bool operator==(const HLVPDiskVolumeInfo&, const HLVPDiskVolumeInfo&) = default;
};

struct SystemStatsMessage {
    static constexpr MessageTraits traits{"systemStats", Direction::agentToViewer, BeforeSignIn::refused,
                                          "SystemStatsMessage"};
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

    static void fields(auto& m, auto&& field) {
        field("totalMemory", m.totalMemory);
        field("freeMemory", m.freeMemory);
        field("totalDiskSpace", m.totalDiskSpace);
        field("freeDiskSpace", m.freeDiskSpace);
        field("cpuUsage", m.cpuUsage);
        field("osVersion", m.osVersion);
        field("macModel", m.macModel);
        field("activeProcess", m.activeProcess);
        field("uptimeSeconds", m.uptimeSeconds);
        field("agentVersion", m.agentVersion);
        field("screenCaptureAuthorized", m.screenCaptureAuthorized);
        field("accessibilityAuthorized", m.accessibilityAuthorized);
        field("screenLocked", m.screenLocked);
        field("primaryIPAddress", m.primaryIPAddress);
        field("loggedInUser", m.loggedInUser);
        field("networkName", m.networkName);
        field("displayCount", m.displayCount);
        field("mainDisplayResolution", m.mainDisplayResolution);
        field("serialNumber", m.serialNumber);
        field("hardwareUUID", m.hardwareUUID);
        field("fileVaultEnabled", m.fileVaultEnabled);
        field("sipEnabled", m.sipEnabled);
        field("gatekeeperEnabled", m.gatekeeperEnabled);
        field("mdmEnrolled", m.mdmEnrolled);
        field("lastBootTime", m.lastBootTime);
        field("lastSleepCause", m.lastSleepCause);
        field("lastWakeCause", m.lastWakeCause);
        field("diskVolumes", m.diskVolumes, wire::maxDiskVolumes);
    }
    friend bool operator==(const SystemStatsMessage&, const SystemStatsMessage&) = default;
};

// Clipboard text in either direction.
struct ClipboardMessage {
    static constexpr MessageTraits traits{"clipboard", Direction::both, BeforeSignIn::refused,
                                          "ClipboardMessage"};
    QString text;
    std::optional<quint32> sequenceNumber;

    // Bounded by the frame here; the receiver refuses texts over the clipboard limit itself, politely.
    static void fields(auto& m, auto&& field) { field("text", m.text, wire::maxFrameBytes); }
    friend bool operator==(const ClipboardMessage&, const ClipboardMessage&) = default;
};

// A viewer asks for the machine's current clipboard text; answered with a ClipboardMessage.
struct ClipboardRequestMessage {
    static constexpr MessageTraits traits{"clipboardRequest", Direction::viewerToAgent, BeforeSignIn::refused,
                                          "ClipboardRequestMessage"};
    std::optional<quint32> sequenceNumber;

    static void fields(auto&, auto&&) {}
    friend bool operator==(const ClipboardRequestMessage&, const ClipboardRequestMessage&) = default;
};

// A refusal or protocol error. `code` is one of the codes in docs/protocol.md. Viewers may send
// one after sign-in; the agent logs it.
struct ErrorMessage {
    static constexpr MessageTraits traits{"error", Direction::both, BeforeSignIn::refused, "ErrorMessage"};
    QString code;
    QString message;
    std::optional<QString> refersTo; // the wire type of the message that was refused
    std::optional<quint32> sequenceNumber;

    static void fields(auto& m, auto&& field) {
        field("code", m.code, wire::maxNameBytes);
        field("message", m.message);
        field("refersTo", m.refersTo, wire::maxNameBytes);
    }
    friend bool operator==(const ErrorMessage&, const ErrorMessage&) = default;
};

// File upload from a viewer: an offer, chunks within the window the agent acknowledges, then
// completion, answered with the result. Either side may cancel.
struct FileOfferMessage {
    static constexpr MessageTraits traits{"fileOffer", Direction::viewerToAgent, BeforeSignIn::refused,
                                          "FileOfferMessage"};
    QString transferID;
    QString name; // as the viewer gives it; made safe by the agent before use
    quint64 size = 0;
    std::optional<quint32> sequenceNumber;

    static void fields(auto& m, auto&& field) {
        field("transferID", m.transferID, wire::maxTransferIDBytes);
        field("name", textOrBytes(m.name), wire::maxFileNameBytes);
        field("size", m.size);
    }
    friend bool operator==(const FileOfferMessage&, const FileOfferMessage&) = default;
};

struct FileAcceptMessage {
    static constexpr MessageTraits traits{"fileAccept", Direction::agentToViewer, BeforeSignIn::refused,
                                          "FileAcceptMessage"};
    QString transferID;
    QString savedName; // the name the file will have in the agent's folder
    quint32 windowBytes = 0;
    std::optional<quint32> sequenceNumber;

    static void fields(auto& m, auto&& field) {
        field("transferID", m.transferID, wire::maxTransferIDBytes);
        field("savedName", m.savedName, wire::maxFileNameBytes);
        field("windowBytes", m.windowBytes);
    }
    friend bool operator==(const FileAcceptMessage&, const FileAcceptMessage&) = default;
};

struct FileChunkMessage {
    static constexpr MessageTraits traits{"fileChunk", Direction::viewerToAgent, BeforeSignIn::refused,
                                          "FileChunkMessage"};
    QString transferID;
    quint64 offset = 0;
    QByteArray data;
    std::optional<quint32> sequenceNumber;

    static void fields(auto& m, auto&& field) {
        field("transferID", m.transferID, wire::maxTransferIDBytes);
        field("offset", m.offset);
        field("data", m.data, wire::maxFileChunkBytes);
    }
    friend bool operator==(const FileChunkMessage&, const FileChunkMessage&) = default;
};

struct FileChunkAckMessage {
    static constexpr MessageTraits traits{"fileChunkAck", Direction::agentToViewer, BeforeSignIn::refused,
                                          "FileChunkAckMessage"};
    QString transferID;
    quint64 receivedBytes = 0;
    std::optional<quint32> sequenceNumber;

    static void fields(auto& m, auto&& field) {
        field("transferID", m.transferID, wire::maxTransferIDBytes);
        field("receivedBytes", m.receivedBytes);
    }
    friend bool operator==(const FileChunkAckMessage&, const FileChunkAckMessage&) = default;
};

struct FileCompleteMessage {
    static constexpr MessageTraits traits{"fileComplete", Direction::viewerToAgent, BeforeSignIn::refused,
                                          "FileCompleteMessage"};
    QString transferID;
    QByteArray sha256; // of the whole file
    std::optional<quint32> sequenceNumber;

    static void fields(auto& m, auto&& field) {
        field("transferID", m.transferID, wire::maxTransferIDBytes);
        field("sha256", m.sha256, ExactBytes{wire::sha256Bytes});
    }
    friend bool operator==(const FileCompleteMessage&, const FileCompleteMessage&) = default;
};

struct FileResultMessage {
    static constexpr MessageTraits traits{"fileResult", Direction::agentToViewer, BeforeSignIn::refused,
                                          "FileResultMessage"};
    QString transferID;
    bool success = false;
    std::optional<QString> savedName;
    std::optional<QString> errorMessage;
    std::optional<quint32> sequenceNumber;

    static void fields(auto& m, auto&& field) {
        field("transferID", m.transferID, wire::maxTransferIDBytes);
        field("success", m.success);
        field("savedName", m.savedName, wire::maxFileNameBytes);
        field("errorMessage", m.errorMessage);
    }
    friend bool operator==(const FileResultMessage&, const FileResultMessage&) = default;
};

struct FileCancelMessage {
    static constexpr MessageTraits traits{"fileCancel", Direction::both, BeforeSignIn::refused,
                                          "FileCancelMessage"};
    QString transferID;
    QString reason;
    std::optional<quint32> sequenceNumber;

    static void fields(auto& m, auto&& field) {
        field("transferID", m.transferID, wire::maxTransferIDBytes);
        field("reason", m.reason);
    }
    friend bool operator==(const FileCancelMessage&, const FileCancelMessage&) = default;
};

using HLVPMessage =
    std::variant<HandshakeMessage, HandshakeResponseMessage, AuthenticationMessage,
                 AuthenticationResponseMessage, DisconnectMessage, HeartbeatMessage, HeartbeatResponseMessage,
                 ScreenCaptureRequest, ScreenCaptureMessage, InputEventMessage, SystemStatsMessage,
                 ClipboardMessage, ClipboardRequestMessage, ErrorMessage, FileOfferMessage, FileAcceptMessage,
                 FileChunkMessage, FileChunkAckMessage, FileCompleteMessage, FileResultMessage,
                 FileCancelMessage, ScreenFrameAckMessage, ScreenStopMessage, ScreenStreamStartedMessage,
                 ScreenGeometryMessage, ScreenFrameMessage, ScreenCursorMessage, ScreenStreamEndedMessage>;

template <std::size_t... index> constexpr auto traitsOfAlternatives(std::index_sequence<index...>) {
    return std::array{std::variant_alternative_t<index, HLVPMessage>::traits...};
}
// The traits of every message type, by its index in HLVPMessage.
inline constexpr auto messageTraitsTable =
    traitsOfAlternatives(std::make_index_sequence<std::variant_size_v<HLVPMessage>>{});

constexpr bool wireNamesAreUnique() {
    for (std::size_t i = 0; i < messageTraitsTable.size(); ++i) {
        for (std::size_t j = i + 1; j < messageTraitsTable.size(); ++j) {
            if (std::string_view(messageTraitsTable[i].wireName) == messageTraitsTable[j].wireName) {
                return false;
            }
        }
    }
    return true;
}
static_assert(wireNamesAreUnique(), "two message types share a wire name");

inline const MessageTraits& messageTraits(const HLVPMessage& message) {
    return messageTraitsTable[message.index()];
}

// The unqualified type name, as log lines write it ("HandshakeMessage").
inline QString messageTypeName(const HLVPMessage& message) {
    return QLatin1StringView(messageTraits(message).typeName);
}
// The type as written on the wire ("handshake").
inline QString wireTypeName(const HLVPMessage& message) {
    return QLatin1StringView(messageTraits(message).wireName);
}

} // namespace tellwyn
