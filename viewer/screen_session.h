#pragma once

#include "screen_stream.h"
#include "viewer_session.h"

#include <QElapsedTimer>

namespace tellwyn {

// A rectangle of the agent's frame as the viewer paints it.
StreamRect toStreamRect(const HLVPScreenRect& rect);

// A screen stream over a signed-in session: asks the agent for the stream, hands the agent's
// stream messages to the ScreenStream, acknowledges each complete frame, stops the stream when
// it cannot be painted, and times heartbeats for the round-trip figure.
class ScreenSession : public QObject {
    Q_OBJECT
public:
    struct Request {
        std::optional<quint32> displayID; // none: all displays
        bool lossless = true;
        quint32 maxFramesPerSecond = 30;
        bool keysByPlace = false; // keys typed by their place on the keyboard instead of their symbol
    };

    ScreenSession(ViewerSession& session, ScreenStream& stream, Request request, QObject* parent = nullptr);

    void start();
    void stop();
    void measureRoundTrip();
    std::optional<double> roundTripMilliseconds() const { return m_roundTrip; }

private:
    void onMessage(const HLVPMessage& message);

    ViewerSession& m_session;
    ScreenStream& m_stream;
    Request m_request;
    QElapsedTimer m_clock;
    quint32 m_heartbeatSequence = 0;
    std::optional<std::pair<quint32, qint64>> m_pendingHeartbeat;
    std::optional<double> m_roundTrip;
};

} // namespace tellwyn
