#pragma once

#include "permission_service.h"

namespace tellwyn {

// On X11 nothing asks the user: screen capture is possible when the display is reachable and a
// 1×1 capture of the root window works, input injection when the XTEST extension is there. With no
// display both are false. (A Wayland session asks the desktop portal instead.)
class X11PermissionService final : public PermissionService {
public:
    bool screenCaptureAllowed() override;
    bool requestScreenCapture() override { return screenCaptureAllowed(); }
    bool inputInjectionAllowed() override;
    bool requestInputInjection() override { return inputInjectionAllowed(); }
    bool openSettings(SettingsPage page) override;
};

} // namespace tellwyn
