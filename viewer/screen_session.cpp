#include "screen_session.h"

using namespace Qt::StringLiterals;

namespace tellwyn {

namespace {

QString encodingName(HLVPScreenRect::Encoding encoding) {
    switch (encoding) {
    case HLVPScreenRect::Encoding::solid:
        return u"solid"_s;
    case HLVPScreenRect::Encoding::copy:
        return u"copy"_s;
    case HLVPScreenRect::Encoding::zstd:
        return u"zstd"_s;
    case HLVPScreenRect::Encoding::palette:
        return u"palette"_s;
    case HLVPScreenRect::Encoding::jpeg:
        return u"jpeg"_s;
    }
    return {};
}

} // namespace

StreamRect toStreamRect(const HLVPScreenRect& rect) {
    return {QRect(int(rect.x), int(rect.y), int(rect.w), int(rect.h)),
            encodingName(rect.encoding),
            rect.color,
            QPoint(int(rect.srcX), int(rect.srcY)),
            rect.palette,
            rect.data};
}

ScreenSession::ScreenSession(ViewerSession& session, ScreenStream& stream, Request request, QObject* parent)
    : QObject(parent), m_session(session), m_stream(stream), m_request(request) {
    m_clock.start();
    connect(&m_session, &ViewerSession::messageReceived, this, &ScreenSession::onMessage);
    connect(&m_stream, &ScreenStream::frameCompleted, this, [this](quint32 streamID, quint32 frame) {
        m_session.send(ScreenFrameAckMessage{streamID, frame, std::nullopt});
    });
    connect(&m_stream, &ScreenStream::failed, this, [this](quint32 streamID, const QString&) {
        m_session.send(ScreenStopMessage{streamID, std::nullopt});
    });
}

void ScreenSession::start() {
    ScreenCaptureRequest request;
    request.displayID = m_request.displayID;
    request.mode = m_request.lossless ? u"lossless"_s : u"balanced"_s;
    request.maxFPS = m_request.maxFramesPerSecond;
    if (m_request.keysByPlace) {
        request.keyMode = u"byPhysicalKey"_s;
    }
    m_stream.requested();
    m_session.send(request);
}

void ScreenSession::stop() {
    if (const std::optional<quint32> id = m_stream.streamID()) {
        m_session.send(ScreenStopMessage{id, std::nullopt});
    }
}

void ScreenSession::measureRoundTrip() {
    m_pendingHeartbeat = std::make_pair(++m_heartbeatSequence, m_clock.elapsed());
    m_session.send(HeartbeatMessage{m_heartbeatSequence});
}

void ScreenSession::onMessage(const HLVPMessage& message) {
    if (const auto* started = std::get_if<ScreenStreamStartedMessage>(&message)) {
        m_stream.streamStarted(started->streamID, QSize(int(started->width), int(started->height)));
    } else if (const auto* frame = std::get_if<ScreenFrameMessage>(&message)) {
        QList<StreamRect> rects;
        qint64 bytes = 0;
        for (const HLVPScreenRect& rect : frame->rects) {
            rects.append({QRect(int(rect.x), int(rect.y), int(rect.w), int(rect.h)),
                          encodingName(rect.encoding), rect.color, QPoint(int(rect.srcX), int(rect.srcY)),
                          rect.palette, rect.data});
            bytes += rect.data.size() + rect.palette.size();
        }
        m_stream.framePart(frame->streamID, frame->frame, frame->final, rects, bytes);
    } else if (const auto* cursor = std::get_if<ScreenCursorMessage>(&message)) {
        std::optional<QSize> size;
        QPoint hotSpot;
        QByteArray pixels;
        if (cursor->shape) {
            size = QSize(int(cursor->shape->width), int(cursor->shape->height));
            hotSpot = QPoint(int(cursor->shape->hotX), int(cursor->shape->hotY));
            pixels = cursor->shape->pixels;
        }
        m_stream.cursor(cursor->streamID, QPoint(int(cursor->x), int(cursor->y)), cursor->visible, size,
                        hotSpot, pixels);
    } else if (const auto* geometry = std::get_if<ScreenGeometryMessage>(&message)) {
        m_stream.geometryChanged(geometry->streamID, QSize(int(geometry->width), int(geometry->height)));
    } else if (const auto* ended = std::get_if<ScreenStreamEndedMessage>(&message)) {
        m_stream.streamEnded(ended->streamID, ended->message);
    } else if (const auto* error = std::get_if<ErrorMessage>(&message)) {
        if (error->refersTo == u"screenCaptureRequest"_s) {
            m_stream.refused(error->message);
        }
    } else if (const auto* answer = std::get_if<HeartbeatResponseMessage>(&message)) {
        if (m_pendingHeartbeat && answer->sequenceNumber == m_pendingHeartbeat->first) {
            m_roundTrip = double(m_clock.elapsed() - m_pendingHeartbeat->second);
            m_pendingHeartbeat.reset();
        }
    }
}

} // namespace tellwyn
