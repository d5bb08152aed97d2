#include "menu_animation.h"

#include "clock.h"

#include <QPainter>
#include <QRadialGradient>
#include <QRandomGenerator>
#include <QScreen>
#include <cmath>
#include <numbers>

using namespace std::chrono_literals;

namespace tellwyn {

namespace {

StatusItemCenterProvider& centerProvider() {
    static StatusItemCenterProvider provider;
    return provider;
}

constexpr int particleCount = 36;
constexpr double flashStartOpacity = 0.85;

} // namespace

void setStatusItemCenterProvider(StatusItemCenterProvider provider) {
    centerProvider() = std::move(provider);
}

std::optional<QPoint> statusItemCenter() {
    const StatusItemCenterProvider& provider = centerProvider();
    return provider ? provider() : std::nullopt;
}

QList<MenuParticleSeed> makeMenuParticleSeeds(QRandomGenerator& random) {
    const auto between = [&random](double low, double high) {
        return low + random.generateDouble() * (high - low);
    };
    QList<MenuParticleSeed> seeds;
    seeds.reserve(particleCount);
    for (int i = 0; i < particleCount; ++i) {
        const double angle = between(0.0, 2.0 * std::numbers::pi);
        const double distance = between(48.0, 130.0);
        const double size = between(2.5, 7.0);
        const double delay = between(0.0, 0.12);
        seeds.append({angle, distance, size, delay});
    }
    return seeds;
}

MenuParticleFrame menuParticleFrame(const MenuParticleSeed& seed, double burstProgress) {
    const double t = std::min(1.0, (burstProgress - seed.delay) / std::max(1.0 - seed.delay, 0.001));
    const double remaining = t > 0.0 ? 1.0 - t : 1.0;
    const double travelled = (1.0 - std::pow(remaining, 2.4)) * seed.distance;
    return {0.95 * remaining, QPointF(std::cos(seed.angle) * travelled, std::sin(seed.angle) * travelled)};
}

QPoint fallbackMenuAnimationOrigin(QRect screenGeometry, QRect availableGeometry) {
    const int panelHeight = availableGeometry.top() - screenGeometry.top();
    const int y = screenGeometry.top() + (panelHeight > 0 ? panelHeight / 2 : 12);
    return {availableGeometry.left() + availableGeometry.width() - 14, y};
}

MenuParticleOverlay::MenuParticleOverlay(Clock& clock, QPoint origin, QList<MenuParticleSeed> particles)
    : OverlayWindow(clock, QRect(origin - QPoint(side / 2, side / 2), QSize(side, side))),
      m_particles(std::move(particles)) {
}

void MenuParticleOverlay::paintEvent(QPaintEvent*) {
    const auto t = elapsed();
    const double burst = easedProgress(t, duration);
    const double flash = flashStartOpacity * (1.0 - easedProgress(t, 220ms));
    const QPointF origin(side / 2.0, side / 2.0);

    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(Qt::NoPen);
    QRadialGradient glow(origin, 22.0);
    glow.setColorAt(0.0, Qt::white);
    glow.setColorAt(1.0, Qt::transparent);
    painter.setOpacity(flash);
    painter.setBrush(glow);
    painter.drawEllipse(origin, 22.0, 22.0);

    painter.setBrush(Qt::white);
    for (const MenuParticleSeed& seed : m_particles) {
        const MenuParticleFrame frame = menuParticleFrame(seed, burst);
        painter.setOpacity(frame.opacity);
        painter.drawEllipse(origin + frame.offset, seed.size / 2.0, seed.size / 2.0);
    }
}

MenuAnimationController::MenuAnimationController(Clock& clock, Scheduler& scheduler, QObject* parent)
    : QObject(parent), m_clock(clock), m_scheduler(scheduler) {
}

MenuAnimationController::~MenuAnimationController() {
    delete m_panel;
}

void MenuAnimationController::play(std::function<void()> completion) {
    if (m_playing) {
        return;
    }
    m_playing = true;
    if (const std::optional<QPoint> centre = statusItemCenter()) {
        m_origin = *centre;
    } else if (const QScreen* screen = overlayScreen()) {
        m_origin = fallbackMenuAnimationOrigin(screen->geometry(), screen->availableGeometry());
    }
    if (canPlaceOverlay()) {
        m_panel =
            new MenuParticleOverlay(m_clock, m_origin, makeMenuParticleSeeds(*QRandomGenerator::global()));
        m_panel->show();
        m_panel->raise();
    }
    m_timer = m_scheduler.oneShot(MenuParticleOverlay::duration, this,
                                  [this, completion = std::move(completion)] { finish(completion); });
}

void MenuAnimationController::finish(const std::function<void()>& completion) {
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
