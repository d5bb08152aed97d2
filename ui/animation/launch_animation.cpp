#include "launch_animation.h"

#include "clock.h"
#include "status_icon.h"

#include <QPainter>
#include <QScreen>
#include <QSvgRenderer>
#include <algorithm>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace tellwyn {

namespace {

const QColor brandColour(174, 27, 199);
constexpr double logoSide = 200.0;
constexpr double logoStartScale = 0.6;

} // namespace

LaunchAnimationMetrics launchAnimationMetrics(QSizeF overlaySize, QSizeF screenSize) {
    const QSizeF size = overlaySize.width() > 1.0 ? overlaySize : screenSize;
    const double smaller = std::min(size.width(), size.height());
    if (smaller <= 1.0) {
        return {140.0, 3.0, 3.6};
    }
    return {std::max(140.0, 0.24 * smaller), std::max(3.0, 0.0045 * smaller), 3.6};
}

LaunchRippleOverlay::LaunchRippleOverlay(Clock& clock, QRect frame)
    : OverlayWindow(clock, frame), m_screenSize(frame.size()) {
}

LaunchAnimationMetrics LaunchRippleOverlay::metrics() const {
    return launchAnimationMetrics(QSizeF(size()), m_screenSize);
}

void LaunchRippleOverlay::paintEvent(QPaintEvent*) {
    const auto t = elapsed();
    const LaunchAnimationMetrics m = metrics();
    const double ring = easedProgress(t, 1100ms);
    const double logoScale = logoStartScale + (1.0 - logoStartScale) * easedProgress(t, 550ms);
    const double fade = t < 500ms ? 0.0 : easedProgress(t - 500ms, 550ms);

    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    const QPointF centre = QRectF(rect()).center();

    const double ringScale = 0.1 + (m.expansionScale - 0.1) * ring;
    QColor stroke = brandColour;
    stroke.setAlphaF(static_cast<float>(0.65 * 0.85 * (1.0 - ring)));
    painter.setPen(QPen(stroke, m.strokeWidth * ringScale));
    const double radius = m.ringDiameter * ringScale / 2.0;
    painter.drawEllipse(centre, radius, radius);

    loadDesktopArtwork();
    static QSvgRenderer logo(u":/tellwyn/logo.svg"_s);
    const double side = logoSide * logoScale;
    painter.setOpacity(1.0 - fade * (1.0 - 0.001));
    logo.render(&painter, QRectF(centre.x() - side / 2.0, centre.y() - side / 2.0, side, side));
}

LaunchAnimationController::LaunchAnimationController(Clock& clock, Scheduler& scheduler, QObject* parent)
    : QObject(parent), m_clock(clock), m_scheduler(scheduler) {
}

LaunchAnimationController::~LaunchAnimationController() {
    delete m_panel;
}

void LaunchAnimationController::play(std::function<void()> completion) {
    if (m_playing) {
        return;
    }
    m_playing = true;
    if (canPlaceOverlay()) {
        const QScreen* screen = overlayScreen();
        m_panel = new LaunchRippleOverlay(m_clock, screen ? screen->availableGeometry() : QRect());
        m_panel->show();
        m_panel->raise();
    }
    m_timer = m_scheduler.oneShot(LaunchRippleOverlay::duration, this,
                                  [this, completion = std::move(completion)] { finish(completion); });
}

void LaunchAnimationController::finish(const std::function<void()>& completion) {
    if (m_panel) {
        m_panel->hide();
        m_panel->deleteLater();
    }
    m_panel = nullptr;
    m_playing = false;
    if (completion) {
        completion();
    }
}

} // namespace tellwyn
