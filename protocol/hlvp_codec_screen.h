#pragma once

#include "hlvp_messages.h"

#include <QCborMap>
#include <optional>
#include <variant>

// The wire form of the screen-stream messages, apart from the rest of the codec.
namespace tellwyn::wire {

inline constexpr qsizetype maxScreenRects = 4096;
inline constexpr qsizetype maxScreenMonitors = 64;
inline constexpr quint32 maxCursorSide = 256;

QCborMap encodeFields(const ScreenFrameAckMessage& m);
QCborMap encodeFields(const ScreenStopMessage& m);
QCborMap encodeFields(const ScreenStreamStartedMessage& m);
QCborMap encodeFields(const ScreenGeometryMessage& m);
QCborMap encodeFields(const ScreenFrameMessage& m);
QCborMap encodeFields(const ScreenCursorMessage& m);
QCborMap encodeFields(const ScreenStreamEndedMessage& m);

// Decodes a screen-stream message of wire type `type`; none when `type` is not one of them, the
// reason when a field is missing, of the wrong type or over its limit.
using ScreenDecodeResult = std::variant<HLVPMessage, QString>;
std::optional<ScreenDecodeResult> decodeScreenMessage(const QString& type, const QCborMap& map);

QString toString(HLVPScreenRect::Encoding encoding);

} // namespace tellwyn::wire
