#include "screen_stream_hub.h"

#include "screen_encoder.h"

#include <QElapsedTimer>
#include <QThread>
#include <QTimer>
#include <map>

using namespace Qt::StringLiterals;

namespace tellwyn {

// Lives on the hub's worker thread: the capture, the desktop's pixels and each stream's encoder.
class ScreenCaptureWorker final : public QObject {
public:
    using Output = std::function<void(quint64 handle, const HLVPMessage& message)>;
    // Where a stream's area starts on the desktop, told whenever it is placed or moved.
    using Placement = std::function<void(quint64 handle, QPoint origin)>;

    ScreenCaptureWorker(ScreenStreamHub::SourceFactory makeSource, Output output, Placement placed,
                        std::shared_ptr<std::atomic<bool>> capturing)
        : m_makeSource(std::move(makeSource)), m_output(std::move(output)), m_placed(std::move(placed)),
          m_capturing(std::move(capturing)) {
        m_clock.start();
    }

    void add(quint64 handle, const ScreenStreamHub::Request& request);
    void remove(quint64 handle);
    void acknowledge(quint64 handle, quint32 frame);

private:
    struct Stream {
        ScreenStreamHub::Request request;
        QRect area; // desktop pixels
        std::unique_ptr<ScreenDeltaEncoder> encoder;
        quint32 sentFrames = 0;
        quint32 acknowledged = 0;
        qint64 lastFrameAt = -1000000;
        bool damaged = true;
        bool cursorDirty = true;
        std::optional<quint32> cursorSerialSent;
        QList<HLVPScreenMonitor> monitors;
    };

    std::optional<ScreenSource::Failure> open();
    void close();
    std::optional<QRect> areaOf(const Stream& stream) const;
    QList<HLVPScreenMonitor> monitorsIn(const QRect& area) const;
    void markStale(const QRect& area);
    void onDamage(const QRect& area);
    void onLayoutChanged();
    void end(quint64 handle, const QString& reason, const QString& message);
    void endAll(const QString& reason, const QString& message);
    qint64 interval(const Stream& stream) const {
        return 1000 / qint64(std::max<quint32>(stream.request.maxFPS, 1));
    }
    bool windowOpen(const Stream& stream) const {
        return stream.sentFrames - stream.acknowledged < ScreenStreamHub::ackWindow;
    }
    std::optional<qint64> dueAt(const Stream& stream) const;
    void schedule();
    void tick();
    void sendCursor(quint64 handle, Stream& stream);
    void sendFrame(quint64 handle, Stream& stream, QList<HLVPScreenRect> rects);

    ScreenStreamHub::SourceFactory m_makeSource;
    Output m_output;
    Placement m_placed;
    std::shared_ptr<std::atomic<bool>> m_capturing;
    std::unique_ptr<ScreenSource> m_source;
    ScreenLayout m_layout;
    PixelBuffer m_desktop;
    QList<QRect> m_stale; // read from the display at the next tick
    std::map<quint64, Stream> m_streams;
    QTimer* m_timer = nullptr;
    QElapsedTimer m_clock;
    CursorImage m_cursor;
    QPoint m_pointer;
};

std::optional<ScreenSource::Failure> ScreenCaptureWorker::open() {
    if (m_source) {
        return std::nullopt;
    }
    m_capturing->store(true);
    std::unique_ptr<ScreenSource> source = m_makeSource ? m_makeSource() : nullptr;
    if (!source) {
        m_capturing->store(false);
        return ScreenSource::Failure{u"screenStreamingUnsupported"_s,
                                     u"Screen streaming is not supported in this desktop session."_s};
    }
    ScreenSource::Listener listener;
    listener.damaged = [this](const QRect& area) {
        onDamage(area);
    };
    listener.layoutChanged = [this] {
        onLayoutChanged();
    };
    listener.pointerMoved = [this](int x, int y) {
        m_pointer = QPoint(x, y);
        for (auto& [handle, stream] : m_streams) {
            stream.cursorDirty = true;
        }
        schedule();
    };
    listener.cursorChanged = [this] {
        m_cursor = m_source->cursor();
        for (auto& [handle, stream] : m_streams) {
            stream.cursorDirty = true;
        }
        schedule();
    };
    listener.lost = [this](const QString& why) {
        // Ended after the source's own call has returned.
        QMetaObject::invokeMethod(
            this, [this, why] { endAll(u"displayLost"_s, why); }, Qt::QueuedConnection);
    };
    if (auto failure = source->start(std::move(listener))) {
        m_capturing->store(false);
        return failure;
    }
    m_source = std::move(source);
    m_layout = m_source->layout();
    m_desktop.resize(m_layout.width, m_layout.height);
    m_stale = {QRect(0, 0, m_layout.width, m_layout.height)};
    m_cursor = m_source->cursor();
    m_pointer = m_source->pointer().value_or(QPoint());
    if (m_timer == nullptr) {
        m_timer = new QTimer(this);
        m_timer->setSingleShot(true);
        m_timer->setTimerType(Qt::PreciseTimer);
        connect(m_timer, &QTimer::timeout, this, [this] { tick(); });
    }
    return std::nullopt;
}

void ScreenCaptureWorker::close() {
    if (m_timer != nullptr) {
        m_timer->stop();
    }
    m_source.reset();
    m_desktop = PixelBuffer();
    m_stale.clear();
    m_capturing->store(false);
}

std::optional<QRect> ScreenCaptureWorker::areaOf(const Stream& stream) const {
    if (!stream.request.displayID) {
        return QRect(0, 0, m_layout.width, m_layout.height);
    }
    const quint32 index = *stream.request.displayID;
    if (index >= quint32(m_layout.monitors.size())) {
        return std::nullopt;
    }
    const HLVPScreenMonitor& monitor = m_layout.monitors.at(index);
    const QRect area = QRect(int(monitor.x), int(monitor.y), int(monitor.width), int(monitor.height))
                           .intersected(QRect(0, 0, m_layout.width, m_layout.height));
    return area.isEmpty() ? std::nullopt : std::optional<QRect>(area);
}

QList<HLVPScreenMonitor> ScreenCaptureWorker::monitorsIn(const QRect& area) const {
    QList<HLVPScreenMonitor> inside;
    for (const HLVPScreenMonitor& monitor : m_layout.monitors) {
        const QRect rect =
            QRect(int(monitor.x), int(monitor.y), int(monitor.width), int(monitor.height)).intersected(area);
        if (!rect.isEmpty()) {
            inside.append({quint32(rect.x() - area.x()), quint32(rect.y() - area.y()), quint32(rect.width()),
                           quint32(rect.height()), monitor.name, monitor.primary});
        }
    }
    if (inside.isEmpty()) {
        inside.append({0, 0, quint32(area.width()), quint32(area.height()), QString(), true});
    }
    return inside;
}

void ScreenCaptureWorker::add(quint64 handle, const ScreenStreamHub::Request& request) {
    const auto refuse = [&](const QString& code, const QString& message) {
        m_output(handle, ErrorMessage{code, message, u"screenCaptureRequest"_s, request.sequenceNumber});
    };
    if (auto failure = open()) {
        refuse(failure->code, failure->message);
        return;
    }
    Stream stream;
    stream.request = request;
    const std::optional<QRect> area = areaOf(stream);
    if (!area) {
        refuse(u"noDisplay"_s, u"There is no display %1."_s.arg(request.displayID.value_or(0)));
        if (m_streams.empty()) {
            close();
        }
        return;
    }
    stream.area = *area;
    stream.monitors = monitorsIn(*area);
    m_placed(handle, area->topLeft());
    stream.encoder = std::make_unique<ScreenDeltaEncoder>(
        area->width(), area->height(),
        request.lossless ? ScreenDeltaEncoder::Mode::lossless : ScreenDeltaEncoder::Mode::balanced);
    m_output(handle,
             ScreenStreamStartedMessage{request.streamID, quint32(area->width()), quint32(area->height()),
                                        stream.monitors, request.lossless ? u"lossless"_s : u"balanced"_s,
                                        request.maxFPS, ScreenStreamHub::ackWindow, request.sequenceNumber});
    m_streams.emplace(handle, std::move(stream));
    // The first frame is the whole area: its pixels are read fresh.
    markStale(*area);
    schedule();
}

void ScreenCaptureWorker::remove(quint64 handle) {
    m_streams.erase(handle);
    if (m_streams.empty()) {
        close();
    }
}

void ScreenCaptureWorker::acknowledge(quint64 handle, quint32 frame) {
    const auto found = m_streams.find(handle);
    if (found == m_streams.end() || frame > found->second.sentFrames || frame <= found->second.acknowledged) {
        return;
    }
    found->second.acknowledged = frame;
    schedule();
}

void ScreenCaptureWorker::markStale(const QRect& area) {
    // Reading one bounding box is cheaper than many small reads once there are many.
    constexpr qsizetype maxAreas = 64;
    if (m_stale.size() >= maxAreas) {
        QRect all = area;
        for (const QRect& stale : std::as_const(m_stale)) {
            all = all.united(stale);
        }
        m_stale = {all};
        return;
    }
    m_stale.append(area);
}

void ScreenCaptureWorker::onDamage(const QRect& area) {
    const QRect clipped = area.intersected(QRect(0, 0, m_layout.width, m_layout.height));
    if (clipped.isEmpty()) {
        return;
    }
    markStale(clipped);
    for (auto& [handle, stream] : m_streams) {
        const QRect inside = clipped.intersected(stream.area);
        if (!inside.isEmpty()) {
            stream.encoder->damage(inside.translated(-stream.area.topLeft()));
            stream.damaged = true;
        }
    }
    schedule();
}

void ScreenCaptureWorker::onLayoutChanged() {
    if (!m_source) {
        return;
    }
    const ScreenLayout layout = m_source->layout();
    if (layout == m_layout) {
        return;
    }
    m_layout = layout;
    m_desktop.resize(layout.width, layout.height);
    m_stale = {QRect(0, 0, layout.width, layout.height)};
    std::vector<quint64> lost;
    for (auto& [handle, stream] : m_streams) {
        const std::optional<QRect> area = areaOf(stream);
        if (!area) {
            lost.push_back(handle);
            continue;
        }
        const QList<HLVPScreenMonitor> monitors = monitorsIn(*area);
        if (area->size() != stream.area.size() || monitors != stream.monitors) {
            m_output(handle, ScreenGeometryMessage{stream.request.streamID, quint32(area->width()),
                                                   quint32(area->height()), monitors, std::nullopt});
            stream.encoder->reset(area->width(), area->height());
        }
        // Whatever moved, the whole area is read again; the encoder sends only what differs.
        stream.area = *area;
        m_placed(handle, area->topLeft());
        stream.monitors = monitors;
        stream.encoder->damage(QRect(QPoint(0, 0), area->size()));
        stream.damaged = true;
        stream.cursorDirty = true;
    }
    for (const quint64 handle : lost) {
        end(handle, u"displayLost"_s, u"The display being streamed went away."_s);
    }
    schedule();
}

void ScreenCaptureWorker::end(quint64 handle, const QString& reason, const QString& message) {
    const auto found = m_streams.find(handle);
    if (found == m_streams.end()) {
        return;
    }
    m_output(handle, ScreenStreamEndedMessage{found->second.request.streamID, reason, message, std::nullopt});
    remove(handle);
}

void ScreenCaptureWorker::endAll(const QString& reason, const QString& message) {
    std::vector<quint64> handles;
    for (const auto& [handle, stream] : m_streams) {
        handles.push_back(handle);
    }
    for (const quint64 handle : handles) {
        end(handle, reason, message);
    }
}

std::optional<qint64> ScreenCaptureWorker::dueAt(const Stream& stream) const {
    std::optional<qint64> due;
    const qint64 next = stream.lastFrameAt + interval(stream);
    if (stream.cursorDirty || (windowOpen(stream) && stream.damaged)) {
        due = next;
    }
    if (windowOpen(stream)) {
        if (const auto refine = stream.encoder->refinementDueAt()) {
            const qint64 at = std::max(*refine, next);
            due = due ? std::min(*due, at) : at;
        }
    }
    return due;
}

void ScreenCaptureWorker::schedule() {
    if (m_timer == nullptr || !m_source) {
        return;
    }
    std::optional<qint64> earliest;
    for (const auto& [handle, stream] : m_streams) {
        if (const auto due = dueAt(stream)) {
            earliest = earliest ? std::min(*earliest, *due) : *due;
        }
    }
    if (!earliest) {
        m_timer->stop();
        return;
    }
    const qint64 delay = std::max<qint64>(0, *earliest - m_clock.elapsed());
    if (!m_timer->isActive() || m_timer->remainingTime() > delay) {
        m_timer->start(int(delay));
    }
}

void ScreenCaptureWorker::tick() {
    if (!m_source) {
        return;
    }
    const qint64 now = m_clock.elapsed();
    bool needPixels = false;
    for (const auto& [handle, stream] : m_streams) {
        needPixels = needPixels ||
                     (windowOpen(stream) && stream.damaged && now >= stream.lastFrameAt + interval(stream));
    }
    if (needPixels && !m_stale.isEmpty()) {
        for (const QRect& area : std::as_const(m_stale)) {
            if (!m_source->read(area, m_desktop)) {
                endAll(u"captureFailed"_s, u"The screen could not be read."_s);
                return;
            }
        }
        m_stale.clear();
    }
    std::vector<quint64> handles;
    for (const auto& [handle, stream] : m_streams) {
        handles.push_back(handle);
    }
    for (const quint64 handle : handles) {
        const auto found = m_streams.find(handle);
        if (found == m_streams.end()) {
            continue;
        }
        Stream& stream = found->second;
        const auto due = dueAt(stream);
        if (!due || *due > now) {
            continue;
        }
        if (stream.cursorDirty) {
            sendCursor(handle, stream);
        }
        const auto refine = stream.encoder->refinementDueAt();
        if (windowOpen(stream) && (stream.damaged || (refine && *refine <= now))) {
            if (stream.damaged && !m_stale.isEmpty()) {
                // Damage arrived after the read above; it waits for the next tick.
                continue;
            }
            stream.damaged = false;
            QList<HLVPScreenRect> rects = stream.encoder->encode(m_desktop.view().sub(stream.area), now);
            if (!rects.isEmpty()) {
                sendFrame(handle, stream, std::move(rects));
                stream.lastFrameAt = now;
            }
        }
    }
    schedule();
}

void ScreenCaptureWorker::sendCursor(quint64 handle, Stream& stream) {
    stream.cursorDirty = false;
    const QPoint at = m_pointer - stream.area.topLeft();
    const bool inside = QRect(QPoint(0, 0), stream.area.size()).contains(at);
    ScreenCursorMessage message;
    message.streamID = stream.request.streamID;
    message.x = quint32(std::clamp(at.x(), 0, std::max(stream.area.width() - 1, 0)));
    message.y = quint32(std::clamp(at.y(), 0, std::max(stream.area.height() - 1, 0)));
    message.visible = inside;
    message.serial = m_cursor.serial;
    if (stream.cursorSerialSent != m_cursor.serial && !m_cursor.pixels.isEmpty()) {
        message.shape = ScreenCursorMessage::Shape{m_cursor.width, m_cursor.height, m_cursor.hotX,
                                                   m_cursor.hotY, m_cursor.pixels};
        stream.cursorSerialSent = m_cursor.serial;
    }
    m_output(handle, message);
}

void ScreenCaptureWorker::sendFrame(quint64 handle, Stream& stream, QList<HLVPScreenRect> rects) {
    const quint32 frame = ++stream.sentFrames;
    ScreenFrameMessage part{stream.request.streamID, frame, 0, false, {}, std::nullopt};
    qsizetype bytes = 0;
    for (HLVPScreenRect& rect : rects) {
        const qsizetype size = rect.data.size() + rect.palette.size() + 64;
        if (!part.rects.isEmpty() &&
            (bytes + size > ScreenStreamHub::framePartBytes || part.rects.size() >= 4096)) {
            m_output(handle, part);
            part.rects.clear();
            ++part.part;
            bytes = 0;
        }
        bytes += size;
        part.rects.append(std::move(rect));
    }
    part.final = true;
    m_output(handle, part);
}

ScreenStreamHub::ScreenStreamHub(SourceFactory makeSource, QObject* parent)
    : QObject(parent), m_makeSource(std::move(makeSource)) {
}

ScreenStreamHub::~ScreenStreamHub() {
    if (m_thread != nullptr) {
        QMetaObject::invokeMethod(
            m_worker, [worker = m_worker] { delete worker; }, Qt::QueuedConnection);
        m_thread->quit();
        m_thread->wait();
        delete m_thread;
    }
}

quint64 ScreenStreamHub::start(const Request& request, Sink sink) {
    if (m_thread == nullptr) {
        m_thread = new QThread;
        m_thread->setObjectName(u"screen capture"_s);
        m_worker = new ScreenCaptureWorker(
            m_makeSource,
            [this](quint64 handle, const HLVPMessage& message) {
                QMetaObject::invokeMethod(
                    this, [this, handle, message] { deliver(handle, message); }, Qt::QueuedConnection);
            },
            [this](quint64 handle, QPoint origin) {
                QMetaObject::invokeMethod(
                    this,
                    [this, handle, origin] {
                        if (m_sinks.contains(handle)) {
                            m_origins.insert(handle, origin);
                        }
                    },
                    Qt::QueuedConnection);
            },
            m_capturing);
        m_worker->moveToThread(m_thread);
        m_thread->start();
    }
    const quint64 handle = m_nextHandle++;
    m_sinks.insert(handle, std::move(sink));
    m_capturing->store(true);
    QMetaObject::invokeMethod(
        m_worker, [worker = m_worker, handle, request] { worker->add(handle, request); },
        Qt::QueuedConnection);
    return handle;
}

void ScreenStreamHub::acknowledge(quint64 handle, quint32 frame) {
    if (m_sinks.contains(handle)) {
        QMetaObject::invokeMethod(
            m_worker, [worker = m_worker, handle, frame] { worker->acknowledge(handle, frame); },
            Qt::QueuedConnection);
    }
}

QPoint ScreenStreamHub::origin(quint64 handle) const {
    return m_origins.value(handle);
}

void ScreenStreamHub::stop(quint64 handle) {
    m_origins.remove(handle);
    if (m_sinks.remove(handle) > 0) {
        QMetaObject::invokeMethod(
            m_worker, [worker = m_worker, handle] { worker->remove(handle); }, Qt::QueuedConnection);
    }
}

void ScreenStreamHub::deliver(quint64 handle, const HLVPMessage& message) {
    const auto found = m_sinks.constFind(handle);
    if (found == m_sinks.cend()) {
        return;
    }
    const Sink sink = *found;
    // A refusal or an end from the worker closes the stream on this side too.
    if (std::holds_alternative<ErrorMessage>(message) ||
        std::holds_alternative<ScreenStreamEndedMessage>(message)) {
        m_sinks.remove(handle);
        m_origins.remove(handle);
    }
    sink(message);
}

} // namespace tellwyn
