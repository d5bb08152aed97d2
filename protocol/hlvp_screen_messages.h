#pragma once

#include "hlvp_message_traits.h"

#include <QByteArray>
#include <QList>
#include <QString>
#include <optional>

namespace tellwyn {

namespace wire {
inline constexpr qsizetype maxScreenRects = 4096;
inline constexpr qsizetype maxScreenMonitors = 64;
inline constexpr quint32 maxCursorSide = 256;
} // namespace wire

// The messages of a screen stream (docs/protocol.md, "Screen streaming"). Positions are in the
// stream's own space: pixels of the streamed area, (0, 0) at its top-left corner.

struct HLVPScreenMonitor {
    quint32 x = 0;
    quint32 y = 0;
    quint32 width = 0;
    quint32 height = 0;
    QString name;
    bool primary = false;

    static void fields(auto& m, auto&& field) {
        field("x", m.x);
        field("y", m.y);
        field("width", m.width);
        field("height", m.height);
        field("name", m.name, wire::maxNameBytes);
        field("primary", m.primary);
    }
    friend bool operator==(const HLVPScreenMonitor&, const HLVPScreenMonitor&) = default;
};

// One rectangle of a frame update; which fields it carries depends on the encoding.
struct HLVPScreenRect {
    enum class Encoding { solid, copy, zstd, palette, jpeg };
    static constexpr std::array encodingNames{
        std::pair{Encoding::solid, "solid"}, std::pair{Encoding::copy, "copy"},
        std::pair{Encoding::zstd, "zstd"}, std::pair{Encoding::palette, "palette"},
        std::pair{Encoding::jpeg, "jpeg"}};

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

    static void fields(auto& r, auto&& field) {
        field("x", r.x);
        field("y", r.y);
        field("w", r.w);
        field("h", r.h);
        field("encoding", byName(r.encoding, encodingNames));
        switch (r.encoding) {
        case Encoding::solid:
            field("color", r.color);
            break;
        case Encoding::copy:
            field("srcX", r.srcX);
            field("srcY", r.srcY);
            break;
        case Encoding::palette:
            field("palette", r.palette, 256 * 3);
            field("data", r.data, wire::maxFrameBytes);
            break;
        case Encoding::zstd:
        case Encoding::jpeg:
            field("data", r.data, wire::maxFrameBytes);
            break;
        }
    }
    static std::optional<QString> problem(const HLVPScreenRect& r);
    friend bool operator==(const HLVPScreenRect&, const HLVPScreenRect&) = default;
};

// The viewer has drawn a frame: the agent may send more.
struct ScreenFrameAckMessage {
    static constexpr MessageTraits traits{"screenFrameAck", Direction::viewerToAgent, BeforeSignIn::refused,
                                          "ScreenFrameAckMessage"};
    quint32 streamID = 0;
    quint32 frame = 0;
    std::optional<quint32> sequenceNumber;

    static void fields(auto& m, auto&& field) {
        field("streamID", m.streamID);
        field("frame", m.frame);
    }
    friend bool operator==(const ScreenFrameAckMessage&, const ScreenFrameAckMessage&) = default;
};

struct ScreenStopMessage {
    static constexpr MessageTraits traits{"screenStop", Direction::viewerToAgent, BeforeSignIn::refused,
                                          "ScreenStopMessage"};
    std::optional<quint32> streamID;
    std::optional<quint32> sequenceNumber;

    static void fields(auto& m, auto&& field) { field("streamID", m.streamID); }
    friend bool operator==(const ScreenStopMessage&, const ScreenStopMessage&) = default;
};

struct ScreenStreamStartedMessage {
    static constexpr MessageTraits traits{"screenStreamStarted", Direction::agentToViewer,
                                          BeforeSignIn::refused, "ScreenStreamStartedMessage"};
    quint32 streamID = 0;
    quint32 width = 0;
    quint32 height = 0;
    QList<HLVPScreenMonitor> monitors;
    QString mode;
    quint32 maxFPS = 0;
    quint32 ackWindow = 0;
    std::optional<quint32> sequenceNumber;

    static void fields(auto& m, auto&& field) {
        field("streamID", m.streamID);
        field("width", m.width);
        field("height", m.height);
        field("monitors", m.monitors, wire::maxScreenMonitors);
        field("mode", m.mode, wire::maxNameBytes);
        field("maxFPS", m.maxFPS);
        field("ackWindow", m.ackWindow);
    }
    friend bool operator==(const ScreenStreamStartedMessage&, const ScreenStreamStartedMessage&) = default;
};

struct ScreenGeometryMessage {
    static constexpr MessageTraits traits{"screenGeometry", Direction::agentToViewer, BeforeSignIn::refused,
                                          "ScreenGeometryMessage"};
    quint32 streamID = 0;
    quint32 width = 0;
    quint32 height = 0;
    QList<HLVPScreenMonitor> monitors;
    std::optional<quint32> sequenceNumber;

    static void fields(auto& m, auto&& field) {
        field("streamID", m.streamID);
        field("width", m.width);
        field("height", m.height);
        field("monitors", m.monitors, wire::maxScreenMonitors);
    }
    friend bool operator==(const ScreenGeometryMessage&, const ScreenGeometryMessage&) = default;
};

// One part of a frame update; a frame is complete with its `final` part.
struct ScreenFrameMessage {
    static constexpr MessageTraits traits{"screenFrame", Direction::agentToViewer, BeforeSignIn::refused,
                                          "ScreenFrameMessage"};
    quint32 streamID = 0;
    quint32 frame = 0;
    quint32 part = 0;
    bool final = true;
    QList<HLVPScreenRect> rects;
    std::optional<quint32> sequenceNumber;

    static void fields(auto& m, auto&& field) {
        field("streamID", m.streamID);
        field("frame", m.frame);
        field("part", m.part);
        field("final", m.final);
        field("rects", m.rects, wire::maxScreenRects);
    }
    friend bool operator==(const ScreenFrameMessage&, const ScreenFrameMessage&) = default;
};

// A cursor's picture and hot spot.
struct HLVPCursorShape {
    quint32 width = 0;
    quint32 height = 0;
    quint32 hotX = 0;
    quint32 hotY = 0;
    QByteArray pixels; // A, R, G, B a pixel, premultiplied

    static void fields(auto& s, auto&& field) {
        field("width", s.width);
        field("height", s.height);
        field("hotX", s.hotX);
        field("hotY", s.hotY);
        field("pixels", s.pixels, qsizetype(wire::maxCursorSide * wire::maxCursorSide * 4));
    }
    static std::optional<QString> problem(const HLVPCursorShape& s);
    friend bool operator==(const HLVPCursorShape&, const HLVPCursorShape&) = default;
};

// The pointer's position, and its shape when that changed.
struct ScreenCursorMessage {
    static constexpr MessageTraits traits{"screenCursor", Direction::agentToViewer, BeforeSignIn::refused,
                                          "ScreenCursorMessage"};
    using Shape = HLVPCursorShape;
    quint32 streamID = 0;
    quint32 x = 0;
    quint32 y = 0;
    bool visible = false;
    quint32 serial = 0;
    std::optional<Shape> shape;
    std::optional<quint32> sequenceNumber;

    static void fields(auto& m, auto&& field) {
        field("streamID", m.streamID);
        field("x", m.x);
        field("y", m.y);
        field("visible", m.visible);
        field("serial", m.serial);
        field(InPlace{"pixels"}, m.shape);
    }
    friend bool operator==(const ScreenCursorMessage&, const ScreenCursorMessage&) = default;
};

struct ScreenStreamEndedMessage {
    static constexpr MessageTraits traits{"screenStreamEnded", Direction::agentToViewer,
                                          BeforeSignIn::refused, "ScreenStreamEndedMessage"};
    quint32 streamID = 0;
    QString reason;
    QString message;
    std::optional<quint32> sequenceNumber;

    static void fields(auto& m, auto&& field) {
        field("streamID", m.streamID);
        field("reason", m.reason, wire::maxNameBytes);
        field("message", m.message);
    }
    friend bool operator==(const ScreenStreamEndedMessage&, const ScreenStreamEndedMessage&) = default;
};

} // namespace tellwyn
