#pragma once

#include "remote_screen.h"

#include <QElapsedTimer>
#include <QObject>
#include <deque>
#include <optional>

namespace tellwyn {

// One rectangle of a frame update, as docs/protocol.md describes it.
struct StreamRect {
    QRect area;
    QString encoding;
    std::uint32_t color = 0;
    QPoint source;
    QByteArray palette;
    QByteArray data;
};

// The viewer's side of a screen stream, one step per message of the agent: paints each frame
// update into a RemoteScreen, says when a frame is complete (to be acknowledged, so that the
// agent keeps sending), and keeps the figures a viewer shows (frames per second, bandwidth).
// Knows no connection, so it runs on synthetic frames as well; free of Qt Gui, so `tellwyn
// screenshot` and the window share it.
class ScreenStream : public QObject {
    Q_OBJECT
public:
    struct Figures {
        double framesPerSecond = 0;
        double bytesPerSecond = 0;
    };

    explicit ScreenStream(RemoteScreen& screen, QObject* parent = nullptr);

    // A stream was asked for: its start or refusal is expected.
    void requested();
    std::optional<quint32> streamID() const { return m_streamID; }
    Figures figures() const;

    void streamStarted(quint32 streamID, QSize size);
    void geometryChanged(quint32 streamID, QSize size);
    // One part of frame `frame`; `final` completes the frame. `bytes` counts towards bandwidth.
    void framePart(quint32 streamID, quint32 frame, bool final, const QList<StreamRect>& rects, qint64 bytes);
    void cursor(quint32 streamID, QPoint position, bool visible, std::optional<QSize> shapeSize,
                QPoint hotSpot, const QByteArray& shape);
    void streamEnded(quint32 streamID, const QString& message);
    void refused(const QString& message);

Q_SIGNALS:
    void sizeChanged(QSize size);
    void painted(const QRect& rect);
    // A whole frame has arrived: the picture is as the agent captured it.
    void frameCompleted(quint32 streamID, quint32 frame);
    void cursorChanged();
    // The agent refused the stream, or ended it; `message` is for the user.
    void ended(const QString& message, bool refused);
    // The agent sent something this viewer cannot paint; the stream is to be stopped.
    void failed(quint32 streamID, const QString& reason);

private:
    bool paint(const StreamRect& rect, QString* error);

    RemoteScreen& m_screen;
    std::optional<quint32> m_streamID;
    bool m_requested = false;
    QElapsedTimer m_clock;
    struct FrameRecord {
        qint64 at;
        qint64 bytes;
    };
    std::deque<FrameRecord> m_recentFrames;
    qint64 m_frameBytes = 0;
};

} // namespace tellwyn
