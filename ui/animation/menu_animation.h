#pragma once

#include "overlay_window.h"

#include <QList>
#include <QObject>
#include <QPointer>
#include <functional>
#include <memory>
#include <optional>

class QRandomGenerator;

namespace tellwyn {

class Scheduler;
class ScheduledTimer;

// Where the status item's icon is, in screen coordinates: the tray registers the provider when it
// sets up its item (replacing an earlier one); none when there is no item or the tray does not
// tell where it is.
using StatusItemCenterProvider = std::function<std::optional<QPoint>()>;
void setStatusItemCenterProvider(StatusItemCenterProvider provider);
std::optional<QPoint> statusItemCenter();

// One particle of the burst: its direction (radians), how far it flies, its size (both in
// points) and when it starts, as a fraction of the burst.
struct MenuParticleSeed {
    double angle;
    double distance;
    double size;
    double delay;
};
QList<MenuParticleSeed> makeMenuParticleSeeds(QRandomGenerator& random);

// A particle at a point of the burst: its opacity and where it is relative to the origin.
struct MenuParticleFrame {
    double opacity;
    QPointF offset;
};
MenuParticleFrame menuParticleFrame(const MenuParticleSeed& seed, double burstProgress);

// Where the burst starts without a status item position: 14 points left of the right edge of the
// screen's free area, in the middle of the panel above it (or near the top without one).
QPoint fallbackMenuAnimationOrigin(QRect screenGeometry, QRect availableGeometry);

// White particles flying out of a flash at the centre of a 308 × 308 window.
class MenuParticleOverlay final : public OverlayWindow {
    Q_OBJECT
public:
    static constexpr int side = 308;
    static constexpr std::chrono::milliseconds duration{1150};

    MenuParticleOverlay(Clock& clock, QPoint origin, QList<MenuParticleSeed> particles);

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    QList<MenuParticleSeed> m_particles;
};

// Plays the particle burst at the status item once per call while none is playing, then calls
// its completion.
class MenuAnimationController final : public QObject {
    Q_OBJECT
public:
    MenuAnimationController(Clock& clock, Scheduler& scheduler, QObject* parent = nullptr);
    ~MenuAnimationController() override;

    // Does nothing (and never calls `completion`) while an animation is playing.
    void play(std::function<void()> completion);
    bool isPlaying() const { return m_playing; }
    // Where the last burst started.
    QPoint origin() const { return m_origin; }
    MenuParticleOverlay* panel() const { return m_panel; }

private:
    void finish(const std::function<void()>& completion);

    Clock& m_clock;
    Scheduler& m_scheduler;
    bool m_playing = false;
    QPoint m_origin;
    QPointer<MenuParticleOverlay> m_panel;
    std::unique_ptr<ScheduledTimer> m_timer;
};

} // namespace tellwyn
