#include "screen_stream.h"

using namespace Qt::StringLiterals;

namespace tellwyn {

namespace {
// Figures cover the last two seconds.
constexpr qint64 figuresWindowMs = 2000;
} // namespace

ScreenStream::ScreenStream(RemoteScreen& screen, QObject* parent) : QObject(parent), m_screen(screen) {
    m_clock.start();
}

void ScreenStream::requested() {
    m_requested = true;
}

void ScreenStream::streamStarted(quint32 streamID, QSize size) {
    if (!m_requested) {
        return;
    }
    m_streamID = streamID;
    m_screen.resize(size);
    Q_EMIT sizeChanged(size);
}

void ScreenStream::geometryChanged(quint32 streamID, QSize size) {
    if (m_streamID != streamID) {
        return;
    }
    m_screen.resize(size);
    Q_EMIT sizeChanged(size);
}

bool ScreenStream::paint(const StreamRect& rect, QString* error) {
    if (rect.encoding == u"solid"_s) {
        return m_screen.fill(rect.area, rect.color, error);
    }
    if (rect.encoding == u"copy"_s) {
        return m_screen.copy(QRect(rect.source, rect.area.size()), rect.area.topLeft(), error);
    }
    if (rect.encoding == u"zstd"_s) {
        return m_screen.paintZstd(rect.area, rect.data, error);
    }
    if (rect.encoding == u"jpeg"_s) {
        return m_screen.paintJpeg(rect.area, rect.data, error);
    }
    if (rect.encoding == u"palette"_s) {
        if (rect.palette.size() % 3 != 0 || rect.palette.size() < 6 || rect.palette.size() > 768) {
            *error = u"a palette of %1 bytes"_s.arg(rect.palette.size());
            return false;
        }
        std::vector<std::uint32_t> colours;
        const auto* rgb = reinterpret_cast<const unsigned char*>(rect.palette.constData());
        for (qsizetype i = 0; i < rect.palette.size(); i += 3) {
            colours.push_back(std::uint32_t(rgb[i]) << 16 | std::uint32_t(rgb[i + 1]) << 8 | rgb[i + 2]);
        }
        return m_screen.paintPalette(rect.area, colours, rect.data, error);
    }
    *error = u"unknown encoding '%1'"_s.arg(rect.encoding);
    return false;
}

void ScreenStream::framePart(quint32 streamID, quint32 frame, bool final, const QList<StreamRect>& rects,
                             qint64 bytes) {
    if (m_streamID != streamID) {
        return; // a stream that has ended, or another connection's habit
    }
    m_frameBytes += bytes;
    for (const StreamRect& rect : rects) {
        QString error;
        if (!paint(rect, &error)) {
            m_streamID.reset();
            m_requested = false;
            Q_EMIT failed(streamID, u"frame %1: %2"_s.arg(frame).arg(error));
            return;
        }
        Q_EMIT painted(rect.area);
    }
    if (!final) {
        return;
    }
    const qint64 now = m_clock.elapsed();
    m_recentFrames.push_back({now, m_frameBytes});
    m_frameBytes = 0;
    while (!m_recentFrames.empty() && m_recentFrames.front().at < now - figuresWindowMs) {
        m_recentFrames.pop_front();
    }
    Q_EMIT frameCompleted(streamID, frame);
}

void ScreenStream::cursor(quint32 streamID, QPoint position, bool visible, std::optional<QSize> shapeSize,
                          QPoint hotSpot, const QByteArray& shape) {
    if (m_streamID != streamID) {
        return;
    }
    QString error;
    if (shapeSize && !m_screen.setCursorShape(*shapeSize, hotSpot, shape, &error)) {
        m_streamID.reset();
        m_requested = false;
        Q_EMIT failed(streamID, error);
        return;
    }
    m_screen.setCursorPosition(position, visible);
    Q_EMIT cursorChanged();
}

void ScreenStream::streamEnded(quint32 streamID, const QString& message) {
    if (m_streamID != streamID) {
        return;
    }
    m_streamID.reset();
    m_requested = false;
    Q_EMIT ended(message, false);
}

void ScreenStream::refused(const QString& message) {
    if (!m_requested || m_streamID) {
        return;
    }
    m_requested = false;
    Q_EMIT ended(message, true);
}

ScreenStream::Figures ScreenStream::figures() const {
    Figures figures;
    const qint64 now = m_clock.elapsed();
    qint64 frames = 0, bytes = 0;
    for (const FrameRecord& record : m_recentFrames) {
        if (record.at >= now - figuresWindowMs) {
            ++frames;
            bytes += record.bytes;
        }
    }
    const double seconds = double(figuresWindowMs) / 1000.0;
    figures.framesPerSecond = double(frames) / seconds;
    figures.bytesPerSecond = double(bytes) / seconds;
    return figures;
}

} // namespace tellwyn
