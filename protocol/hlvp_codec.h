#pragma once

#include "hlvp_frame.h"
#include "hlvp_messages.h"

#include <QByteArray>
#include <QByteArrayView>
#include <variant>

namespace tellwyn::wire {

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
// The same, but a large byte string (a file's piece, a clipboard) is taken from `body` without a
// copy, which leaves `body` empty; a body no larger than maxUnauthenticatedFrameBytes is untouched.
DecodeResult decodeMessage(QByteArray& body);

} // namespace tellwyn::wire
