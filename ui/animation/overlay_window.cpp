#include "overlay_window.h"

#include "clock.h"

#include <QApplication>
#include <QEasingCurve>
#include <QGuiApplication>
#include <QScreen>
#include <QTimer>
#include <QWindow>

using namespace Qt::StringLiterals;

namespace tellwyn {

double easeOut(double x) {
    static const QEasingCurve curve = [] {
        QEasingCurve bezier(QEasingCurve::BezierSpline);
        bezier.addCubicBezierSegment(QPointF(0.0, 0.0), QPointF(0.58, 1.0), QPointF(1.0, 1.0));
        return bezier;
    }();
    return curve.valueForProgress(std::clamp(x, 0.0, 1.0));
}

double easedProgress(std::chrono::milliseconds elapsed, std::chrono::milliseconds duration) {
    if (duration.count() <= 0) {
        return 1.0;
    }
    return easeOut(static_cast<double>(elapsed.count()) / static_cast<double>(duration.count()));
}

QScreen* overlayScreen() {
    if (const QWidget* active = QApplication::activeWindow()) {
        if (QScreen* screen = active->screen()) {
            return screen;
        }
    }
    for (const QWidget* window : QApplication::topLevelWidgets()) {
        if (window->isVisible() && !qobject_cast<const OverlayWindow*>(window) && window->screen()) {
            return window->screen();
        }
    }
    return QGuiApplication::primaryScreen();
}

bool canPlaceOverlay() {
    return !QGuiApplication::platformName().startsWith(u"wayland"_s);
}

OverlayWindow::OverlayWindow(Clock& clock, QRect frame)
    : QWidget(nullptr, Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint |
                           Qt::WindowTransparentForInput | Qt::WindowDoesNotAcceptFocus |
                           Qt::X11BypassWindowManagerHint | Qt::NoDropShadowWindowHint),
      m_clock(clock), m_appeared(clock.now()), m_frames(new QTimer(this)) {
    setAttribute(Qt::WA_TranslucentBackground);
    setAttribute(Qt::WA_ShowWithoutActivating);
    setAttribute(Qt::WA_TransparentForMouseEvents);
    setGeometry(frame);
    m_frames->setInterval(16);
    connect(m_frames, &QTimer::timeout, this, qOverload<>(&QWidget::update));
    m_frames->start();
}

void OverlayWindow::showEvent(QShowEvent* event) {
    QWidget::showEvent(event);
    raise();
    // Once more on the next turn of the event loop, over whatever was raised meanwhile.
    QTimer::singleShot(0, this, [this] { raise(); });
}

std::chrono::milliseconds OverlayWindow::elapsed() const {
    return std::chrono::milliseconds(std::max<qint64>(0, m_appeared.msecsTo(m_clock.now())));
}

} // namespace tellwyn
