#pragma once

namespace tellwyn {

// What gates screen capture and input injection on this desktop. Queries never prompt; requests
// may show the desktop's own dialog and answer what the desktop then says for this process.
// Queries may be asked from any thread (the statistics ask from their worker); requests and
// settings from the main thread.
class PermissionService {
public:
    virtual ~PermissionService() = default;
    virtual bool screenCaptureAllowed() = 0;
    virtual bool requestScreenCapture() = 0;
    virtual bool inputInjectionAllowed() = 0;
    virtual bool requestInputInjection() = 0;

    enum class SettingsPage { screenSharing, screenRecording, privacy };
    // Opens the desktop's settings at `page`; false when this desktop has no such page.
    virtual bool openSettings(SettingsPage page) = 0;
};

} // namespace tellwyn
