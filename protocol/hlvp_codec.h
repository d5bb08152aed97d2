#pragma once

#include "hlvp_messages.h"

#include <QByteArray>
#include <QByteArrayView>

#include <variant>

class QIODevice;

namespace tellwyn::wire {

// Every frame is a 4-byte big-endian length followed by that many bytes of one CBOR map.
inline constexpr qsizetype frameHeaderBytes = 4;
// Largest frame before and after sign-in. A larger announced length ends the connection.
inline constexpr qsizetype maxUnauthenticatedFrameBytes = 64 * 1024;
inline constexpr qsizetype maxFrameBytes = HLVP::maxClipboardBytes + 64 * 1024;

// Field limits, in UTF-8 bytes or entries.
inline constexpr qsizetype maxNameBytes = 256;            // clientName, agentName, volume names
inline constexpr qsizetype maxTextBytes = 4096;           // every other text unless listed here
inline constexpr qsizetype maxCredentialEntries = 16;
inline constexpr qsizetype maxCredentialKeyBytes = 64;
inline constexpr qsizetype maxCredentialValueBytes = 1024;
inline constexpr qsizetype maxMapEntries = 64;            // keys of one message
inline constexpr qsizetype maxDiskVolumes = 256;
inline constexpr qsizetype maxTransferIDBytes = 64;
inline constexpr qsizetype maxFileNameBytes = 1024;     // as offered; the saved name is shortened further
inline constexpr qsizetype maxFileChunkBytes = 256 * 1024;
inline constexpr qsizetype sha256Bytes = 32;

QByteArray encodeMessage(const HLVPMessage& message);
// Header and body, ready to write.
QByteArray encodeFrame(const HLVPMessage& message);

struct DecodeError {
    QString reason;
};
using DecodeResult = std::variant<HLVPMessage, DecodeError>;

// Decodes one frame's body. Anything but one well-formed map of a known type with fields of the
// right types and sizes is an error; unknown keys are ignored (within maxMapEntries).
DecodeResult decodeMessage(QByteArrayView body);

struct FrameRead {
    enum class Status { frame, incomplete, error };
    Status status = Status::incomplete;
    QByteArray body;
    QString error;
};

// Takes the next whole frame from `device` without consuming a partial one. Reports an error for
// an empty frame or one larger than `maxBytes` as soon as its header has arrived.
FrameRead readFrame(QIODevice& device, qsizetype maxBytes);

} // namespace tellwyn::wire
