#pragma once

#include "hlvp_messages.h"
#include "screen_source.h"

#include <QHash>
#include <QObject>
#include <QPoint>
#include <atomic>
#include <functional>
#include <memory>
#include <optional>

class QThread;

namespace tellwyn {

class ScreenCaptureWorker;

// Serves every screen stream of the agent from one capture. Capture and encoding run on a worker
// thread of the hub's own; messages for a stream come back on the hub's (main) thread. The
// display is watched only while at least one stream runs: with none, the worker holds no capture
// and no timer.
class ScreenStreamHub final : public QObject {
    Q_OBJECT
public:
    using SourceFactory = std::function<std::unique_ptr<ScreenSource>()>;
    using Sink = std::function<void(const HLVPMessage& message)>;
    static constexpr quint32 ackWindow = 2;
    static constexpr quint32 defaultMaxFPS = 30;
    static constexpr quint32 highestMaxFPS = 60;
    // Parts of a frame are cut near this size, so other traffic is not held up long.
    static constexpr qsizetype framePartBytes = 256 * 1024;

    struct Request {
        quint32 streamID = 0;
        std::optional<quint32> displayID; // none: all displays
        bool lossless = false;
        quint32 maxFPS = defaultMaxFPS;
        std::optional<quint32> sequenceNumber;
    };

    explicit ScreenStreamHub(SourceFactory makeSource, QObject* parent = nullptr);
    ~ScreenStreamHub() override;

    // Starts a stream; `sink` receives its messages: screenStreamStarted or a refusal (error),
    // then frames, cursor and geometry, and screenStreamEnded when the display goes away. Returns
    // the handle that names the stream to the hub.
    quint64 start(const Request& request, Sink sink);
    void acknowledge(quint64 handle, quint32 frame);
    // Ends a stream without a message; nothing more reaches its sink.
    void stop(quint64 handle);
    // Where the stream's picture starts on the desktop: a viewer's positions are relative to it.
    QPoint origin(quint64 handle) const;

    qsizetype streamCount() const { return m_sinks.size(); }
    // The worker holds the display open (a stream runs or is being started).
    bool isCapturing() const { return m_capturing->load(); }

private:
    void deliver(quint64 handle, const HLVPMessage& message);

    SourceFactory m_makeSource;
    QThread* m_thread = nullptr;
    ScreenCaptureWorker* m_worker = nullptr;
    QHash<quint64, Sink> m_sinks;
    QHash<quint64, QPoint> m_origins;
    quint64 m_nextHandle = 1;
    std::shared_ptr<std::atomic<bool>> m_capturing = std::make_shared<std::atomic<bool>>(false);
};

} // namespace tellwyn
