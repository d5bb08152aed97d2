#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <optional>

namespace tellwyn {

// The messages of a screen stream (docs/protocol.md, section 7). Positions are in the stream's
// own space: pixels of the streamed area, (0, 0) at its top-left corner.

struct HLVPScreenMonitor {
    quint32 x = 0;
    quint32 y = 0;
    quint32 width = 0;
    quint32 height = 0;
    QString name;
    bool primary = false;
    friend bool operator==(const HLVPScreenMonitor&, const HLVPScreenMonitor&) = default;
};

// One rectangle of a frame update; which fields matter depends on the encoding.
struct HLVPScreenRect {
    enum class Encoding { solid, copy, zstd, palette, jpeg };
    quint32 x = 0;
    quint32 y = 0;
    quint32 w = 0;
    quint32 h = 0;
    Encoding encoding = Encoding::solid;
    quint32 color = 0; // solid: 0xRRGGBB
    quint32 srcX = 0;  // copy: source corner
    quint32 srcY = 0;
    QByteArray palette; // palette: 3 bytes (R, G, B) a colour
    QByteArray data;    // zstd, palette, jpeg
    friend bool operator==(const HLVPScreenRect&, const HLVPScreenRect&) = default;
};

struct ScreenFrameAckMessage {
    quint32 streamID = 0;
    quint32 frame = 0;
    std::optional<quint32> sequenceNumber;
    friend bool operator==(const ScreenFrameAckMessage&, const ScreenFrameAckMessage&) = default;
};

struct ScreenStopMessage {
    std::optional<quint32> streamID;
    std::optional<quint32> sequenceNumber;
    friend bool operator==(const ScreenStopMessage&, const ScreenStopMessage&) = default;
};

struct ScreenStreamStartedMessage {
    quint32 streamID = 0;
    quint32 width = 0;
    quint32 height = 0;
    QList<HLVPScreenMonitor> monitors;
    QString mode;
    quint32 maxFPS = 0;
    quint32 ackWindow = 0;
    std::optional<quint32> sequenceNumber;
    friend bool operator==(const ScreenStreamStartedMessage&, const ScreenStreamStartedMessage&) = default;
};

struct ScreenGeometryMessage {
    quint32 streamID = 0;
    quint32 width = 0;
    quint32 height = 0;
    QList<HLVPScreenMonitor> monitors;
    std::optional<quint32> sequenceNumber;
    friend bool operator==(const ScreenGeometryMessage&, const ScreenGeometryMessage&) = default;
};

// One part of a frame update; a frame is complete with its `final` part.
struct ScreenFrameMessage {
    quint32 streamID = 0;
    quint32 frame = 0;
    quint32 part = 0;
    bool final = true;
    QList<HLVPScreenRect> rects;
    std::optional<quint32> sequenceNumber;
    friend bool operator==(const ScreenFrameMessage&, const ScreenFrameMessage&) = default;
};

// The pointer's position, and its shape when that changed.
struct ScreenCursorMessage {
    struct Shape {
        quint32 width = 0;
        quint32 height = 0;
        quint32 hotX = 0;
        quint32 hotY = 0;
        QByteArray pixels; // A, R, G, B a pixel, premultiplied
        friend bool operator==(const Shape&, const Shape&) = default;
    };
    quint32 streamID = 0;
    quint32 x = 0;
    quint32 y = 0;
    bool visible = false;
    quint32 serial = 0;
    std::optional<Shape> shape;
    std::optional<quint32> sequenceNumber;
    friend bool operator==(const ScreenCursorMessage&, const ScreenCursorMessage&) = default;
};

struct ScreenStreamEndedMessage {
    quint32 streamID = 0;
    QString reason;
    QString message;
    std::optional<quint32> sequenceNumber;
    friend bool operator==(const ScreenStreamEndedMessage&, const ScreenStreamEndedMessage&) = default;
};

} // namespace tellwyn
