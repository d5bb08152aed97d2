#pragma once

#include "window_system.h"

namespace tellwyn {

// The X server named by DISPLAY: the window manager's active window and stacking list (EWMH),
// RandR monitors, a 1x1 capture of the root window and the XTEST extension. Each call opens its
// own short connection, so it may be made from any thread; no reachable server answers
// "nothing" and "no".
class X11WindowSystem final : public WindowSystem {
public:
    QList<WindowOwner> frontWindowOwners() override;
    Screens screens() override;
    bool canCaptureScreen() override;
    bool canInjectInput() override;
};

} // namespace tellwyn
