#include "screen_view.h"

#include <QPaintEvent>
#include <QPainter>
#include <QScrollBar>
#include <algorithm>
#include <cmath>

namespace tellwyn {

ScreenView::ScreenView(const RemoteScreen& screen, QWidget* parent)
    : QAbstractScrollArea(parent), m_screen(screen) {
    setFrameShape(QFrame::NoFrame);
    viewport()->setAttribute(Qt::WA_OpaquePaintEvent);
    viewport()->setMouseTracking(true);
    screenResized();
}

void ScreenView::setFitToWindow(bool fit) {
    m_fit = fit;
    updateScrollBars();
    viewport()->update();
}

void ScreenView::setOverlayText(const QString& text) {
    m_overlayText = text;
    if (m_overlayVisible) {
        viewport()->update(QRect(0, 0, viewport()->width(), 2 * fontMetrics().height()));
    }
}

void ScreenView::setOverlayVisible(bool visible) {
    m_overlayVisible = visible;
    viewport()->update();
}

void ScreenView::screenResized() {
    const QSize size = m_screen.size();
    m_picture = size.isEmpty() ? QImage()
                               : QImage(reinterpret_cast<const uchar*>(m_screen.pixels()), size.width(),
                                        size.height(), qsizetype(size.width()) * 4, QImage::Format_RGB32);
    updateScrollBars();
    viewport()->update();
}

void ScreenView::screenChanged(const QRect& rect) {
    viewport()->update(toViewport(rect).toAlignedRect().adjusted(-1, -1, 1, 1));
}

void ScreenView::cursorChanged() {
    const RemoteScreen::Cursor& cursor = m_screen.cursor();
    if (!cursor.size.isEmpty()) {
        m_cursor = QImage(reinterpret_cast<const uchar*>(cursor.pixels.data()), cursor.size.width(),
                          cursor.size.height(), qsizetype(cursor.size.width()) * 4,
                          QImage::Format_ARGB32_Premultiplied);
    }
    viewport()->update(m_cursorShown);
    m_cursorShown = cursorArea();
    viewport()->update(m_cursorShown);
}

QRectF ScreenView::pictureArea() const {
    const QSizeF size = m_screen.size();
    if (size.isEmpty()) {
        return {};
    }
    if (!m_fit) {
        return {QPointF(-horizontalScrollBar()->value(), -verticalScrollBar()->value()), size};
    }
    const QSizeF fitted = size.scaled(viewport()->size(), Qt::KeepAspectRatio);
    return {QPointF((viewport()->width() - fitted.width()) / 2, (viewport()->height() - fitted.height()) / 2),
            fitted};
}

QRectF ScreenView::toViewport(const QRectF& rect) const {
    const QRectF area = pictureArea();
    if (area.isEmpty()) {
        return {};
    }
    const double scale = area.width() / m_screen.size().width();
    return {area.topLeft() + rect.topLeft() * scale, rect.size() * scale};
}

std::optional<QPoint> ScreenView::toScreen(QPointF viewportPoint) const {
    const QRectF area = pictureArea();
    if (area.isEmpty()) {
        return std::nullopt;
    }
    const QSize size = m_screen.size();
    const QPointF pixel = (viewportPoint - area.topLeft()) * (size.width() / area.width());
    return QPoint(std::clamp(int(std::floor(pixel.x())), 0, size.width() - 1),
                  std::clamp(int(std::floor(pixel.y())), 0, size.height() - 1));
}

QRect ScreenView::cursorArea() const {
    const RemoteScreen::Cursor& cursor = m_screen.cursor();
    if (!cursor.visible || cursor.size.isEmpty()) {
        return {};
    }
    return toViewport(QRectF(cursor.position - cursor.hotSpot, cursor.size))
        .toAlignedRect()
        .adjusted(-1, -1, 1, 1);
}

void ScreenView::updateScrollBars() {
    const QSize size = m_screen.size();
    const QSize room = viewport()->size();
    horizontalScrollBar()->setRange(0, m_fit ? 0 : qMax(0, size.width() - room.width()));
    verticalScrollBar()->setRange(0, m_fit ? 0 : qMax(0, size.height() - room.height()));
    horizontalScrollBar()->setPageStep(room.width());
    verticalScrollBar()->setPageStep(room.height());
    setHorizontalScrollBarPolicy(m_fit ? Qt::ScrollBarAlwaysOff : Qt::ScrollBarAsNeeded);
    setVerticalScrollBarPolicy(m_fit ? Qt::ScrollBarAlwaysOff : Qt::ScrollBarAsNeeded);
}

void ScreenView::resizeEvent(QResizeEvent* event) {
    QAbstractScrollArea::resizeEvent(event);
    updateScrollBars();
    m_cursorShown = cursorArea();
}

void ScreenView::scrollContentsBy(int, int) {
    m_cursorShown = cursorArea();
    viewport()->update();
}

void ScreenView::paintEvent(QPaintEvent* event) {
    QPainter painter(viewport());
    painter.fillRect(event->rect(), palette().color(QPalette::Dark));
    const QRectF area = pictureArea();
    if (m_picture.isNull()) {
        return;
    }
    const double scale = area.width() / m_picture.width();
    // Only the part of the picture behind the exposed region is scaled and drawn.
    const QRectF exposed = QRectF(event->rect()).intersected(area);
    const QRectF source((exposed.topLeft() - area.topLeft()) / scale, exposed.size() / scale);
    painter.setRenderHint(QPainter::SmoothPixmapTransform, m_fit && scale < 1.0);
    painter.drawImage(exposed, m_picture, source);
    const RemoteScreen::Cursor& cursor = m_screen.cursor();
    if (cursor.visible && !m_cursor.isNull()) {
        painter.drawImage(toViewport(QRectF(cursor.position - cursor.hotSpot, cursor.size)), m_cursor);
    }
    if (m_overlayVisible && !m_overlayText.isEmpty()) {
        const QRect box = painter.fontMetrics().boundingRect(m_overlayText).adjusted(-6, -3, 6, 3);
        const QRect placed = box.translated(8 - box.left(), 8 - box.top());
        painter.fillRect(placed, QColor(0, 0, 0, 160));
        painter.setPen(Qt::white);
        painter.drawText(placed, Qt::AlignCenter, m_overlayText);
    }
}

} // namespace tellwyn
