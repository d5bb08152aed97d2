#pragma once

#include "hlvp_screen_capture.h"

namespace tellwyn {

// Captures the X screen named by DISPLAY (the whole root window; each X screen is one display)
// with GetImage and encodes it as JPEG.
class X11ScreenCapture final : public HLVPScreenCapture {
public:
    void captureScreen(quint32 displayID, double quality, QObject* context, Completion done) override;
    void cleanup() override {}
};

} // namespace tellwyn
