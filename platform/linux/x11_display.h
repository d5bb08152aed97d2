#pragma once

#include "display_probe.h"

namespace tellwyn {

// Whether a GUI session could be opened here: an X server answers on DISPLAY, or a Wayland
// compositor's socket is present. Needs neither Qt Gui nor a running application.
bool desktopDisplayReachable();
// The RandR monitors of the X server named by DISPLAY (every X screen without RandR); 0 without one.
int x11MonitorCount();

// The displays of a headless agent: whatever the X server named by DISPLAY shows, if any, so that
// `--headless` on a desktop still sees them.
class X11DisplayProbe final : public DisplayProbe {
public:
    int displayCount() const override { return x11MonitorCount(); }
};

} // namespace tellwyn
