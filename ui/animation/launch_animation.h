#pragma once

#include "overlay_window.h"

#include <QObject>
#include <QPointer>
#include <QSizeF>
#include <functional>
#include <memory>

namespace tellwyn {

class Scheduler;
class ScheduledTimer;

// The ring's size for an overlay: 24 % of the smaller side (at least 140) and a stroke of
// 0.45 % of it (at least 3).
struct LaunchAnimationMetrics {
    double ringDiameter;
    double strokeWidth;
    double expansionScale;
};
LaunchAnimationMetrics launchAnimationMetrics(QSizeF overlaySize, QSizeF screenSize);

// The logo over an expanding ring in the brand colour, filling the screen's free area.
class LaunchRippleOverlay final : public OverlayWindow {
    Q_OBJECT
public:
    static constexpr std::chrono::milliseconds duration{1300};

    LaunchRippleOverlay(Clock& clock, QRect frame);
    LaunchAnimationMetrics metrics() const;

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    QSizeF m_screenSize;
};

// Plays the launch animation once per call while none is playing, then calls its completion.
class LaunchAnimationController final : public QObject {
    Q_OBJECT
public:
    LaunchAnimationController(Clock& clock, Scheduler& scheduler, QObject* parent = nullptr);
    ~LaunchAnimationController() override;

    // Does nothing (and never calls `completion`) while an animation is playing.
    void play(std::function<void()> completion);
    bool isPlaying() const { return m_playing; }
    // The overlay on screen, if the window system shows one.
    LaunchRippleOverlay* panel() const { return m_panel; }

private:
    void finish(const std::function<void()>& completion);

    Clock& m_clock;
    Scheduler& m_scheduler;
    bool m_playing = false;
    QPointer<LaunchRippleOverlay> m_panel;
    std::unique_ptr<ScheduledTimer> m_timer;
};

} // namespace tellwyn
