#pragma once

#include "display_probe.h"

namespace tellwyn {

// Counts the screens of the GUI session when the agent has one; otherwise asks the X server named
// by DISPLAY for its RandR monitors, so that `--headless` on a desktop still sees the displays.
class LinuxDisplayProbe final : public DisplayProbe {
public:
    int displayCount() const override;

    // Whether a GUI session could be opened here: an X server answers on DISPLAY, or a Wayland
    // compositor's socket is present.
    static bool displayReachable();
};

} // namespace tellwyn
