#pragma once

#include "remote_screen.h"

#include <QAbstractScrollArea>
#include <QImage>
#include <optional>

namespace tellwyn {

// Shows a RemoteScreen: scaled to fit the window, or pixel for pixel with scroll bars, with the
// agent's cursor drawn on top and, when asked, a line of stream figures in a corner.
class ScreenView : public QAbstractScrollArea {
    Q_OBJECT
public:
    explicit ScreenView(const RemoteScreen& screen, QWidget* parent = nullptr);

    void setFitToWindow(bool fit);
    bool fitToWindow() const { return m_fit; }
    void setOverlayText(const QString& text);
    void setOverlayVisible(bool visible);
    bool overlayVisible() const { return m_overlayVisible; }

    // The picture took a new size; the whole view is drawn again.
    void screenResized();
    // Pixels inside `rect` (screen coordinates) changed.
    void screenChanged(const QRect& rect);
    void cursorChanged();

    // The picture's pixel under a point of the viewport; a point beside the picture gives the
    // nearest pixel of its edge. None while there is no picture.
    std::optional<QPoint> toScreen(QPointF viewportPoint) const;

protected:
    void paintEvent(QPaintEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    void scrollContentsBy(int dx, int dy) override;

private:
    // Where the screen's pixel rectangle `rect` lands in the viewport.
    QRectF toViewport(const QRectF& rect) const;
    QRectF pictureArea() const;
    QRect cursorArea() const;
    void updateScrollBars();

    const RemoteScreen& m_screen;
    QImage m_picture; // shares the RemoteScreen's pixels
    QImage m_cursor;
    QRect m_cursorShown;
    bool m_fit = true;
    bool m_overlayVisible = false;
    QString m_overlayText;
};

} // namespace tellwyn
