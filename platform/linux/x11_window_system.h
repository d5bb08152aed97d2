#pragma once

#include "window_system.h"

namespace tellwyn {

// The X server named by DISPLAY: the window manager's active window and stacking list (EWMH) and
// the RandR monitors. Each call opens its own short connection, so it may be made from any thread;
// no reachable server answers "nothing".
class X11WindowSystem final : public WindowSystem {
public:
    QList<WindowOwner> frontWindowOwners() override;
    Screens screens() override;
};

} // namespace tellwyn
