#pragma once

#include <QDateTime>
#include <QWidget>
#include <chrono>

class QScreen;
class QTimer;

namespace tellwyn {

class Clock;

// The system's "ease out" timing curve (cubic Bézier 0, 0, 0.58, 1) at `x` in [0, 1].
double easeOut(double x);
// How far an animation of `duration` that began `elapsed` ago has come, eased out, in [0, 1].
double easedProgress(std::chrono::milliseconds elapsed, std::chrono::milliseconds duration);

// The screen an overlay goes on: the active window's, else the first visible window's, else the
// primary screen.
QScreen* overlayScreen();
// Whether the window system lets the agent place a window of its own anywhere (X11 does;
// Wayland does not). Without that an animation plays unseen.
bool canPlaceOverlay();

// A frameless, translucent top-level window above all others that lets every click through
// and never takes the focus. It repaints itself while it is shown; what it draws depends on the
// time since it appeared, read from the agent's clock.
class OverlayWindow : public QWidget {
    Q_OBJECT
public:
    OverlayWindow(Clock& clock, QRect frame);

    // Time since the overlay appeared.
    std::chrono::milliseconds elapsed() const;

protected:
    void showEvent(QShowEvent* event) override;

    Clock& m_clock;

private:
    QDateTime m_appeared;
    QTimer* m_frames;
};

} // namespace tellwyn
