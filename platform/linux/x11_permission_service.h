#pragma once

#include "permission_service.h"

namespace tellwyn {

// On X11 nothing asks the user: screen capture is possible when the display is reachable and a
// 1×1 capture of the root window works, input injection when the XTEST extension is there. On a
// Wayland-only session or with no display both are false (the desktop portals are not used yet).
// Settings: GNOME's or KDE's sharing and privacy pages where their settings programs exist.
class X11PermissionService final : public PermissionService {
public:
    bool screenCaptureAllowed() override;
    bool requestScreenCapture() override { return screenCaptureAllowed(); }
    bool inputInjectionAllowed() override;
    bool requestInputInjection() override { return inputInjectionAllowed(); }
    bool openSettings(SettingsPage page) override;
};

} // namespace tellwyn
