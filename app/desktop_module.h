#pragma once

#include "display_probe.h"
#include "hlvp_credential_store.h"
#include "hlvp_screen_capture.h"
#include "input_injector.h"
#include "permission_service.h"
#include "screen_source.h"
#include "server_manager.h"
#include "system_clipboard.h"
#include "window_system.h"

#include <QCoreApplication>
#include <QString>
#include <functional>
#include <memory>
#include <optional>

namespace tellwyn {

// The desktop services, made once the application exists: whatever the agent needs of a desktop
// (screens, clipboard, windows, capture, keyring) and the desktop face itself.
class DesktopServices {
public:
    virtual ~DesktopServices() = default;

    virtual std::unique_ptr<DisplayProbe> makeDisplayProbe() = 0;
    virtual std::unique_ptr<SystemClipboard> makeClipboard() = 0;
    virtual std::unique_ptr<PermissionService> makePermissionService(const QString& dataDirectory) = 0;
    virtual std::unique_ptr<WindowSystem> makeWindowSystem() = 0;
    // None when there is no keyring to ask.
    virtual std::unique_ptr<HLVPCredentialStore> makeCredentialStore() = 0;
    virtual std::function<std::unique_ptr<HLVPScreenCapture>()> screenCaptureFactory() = 0;
    // Where screen streams read the display; the source is made on the capture thread.
    virtual std::function<std::unique_ptr<ScreenSource>()> screenSourceFactory() = 0;
    // What puts a streaming viewer's input into this desktop, one per viewer.
    virtual std::function<std::unique_ptr<InputInjector>()> inputInjectorFactory() = 0;

    // False when another agent already shows this desktop: its window has been asked to show.
    virtual bool claimDesktop() = 0;
    // Runs the agent with its tray item and windows until it quits; `prepare` runs on the core as
    // soon as it exists.
    virtual int runAgent(const AgentEnvironment& environment, const std::optional<QString>& updateFeedURL,
                         std::function<void(ServerManager&)> prepare) = 0;
    // The update check with its alerts.
    virtual int runUpdateCheck(const std::optional<QString>& updateFeedURL) = 0;
};

// The agent's desktop side — Qt Gui and Widgets, X11, the keyring, the tray and the windows — in a
// module of its own, which the agent loads only when a display is reachable (and the crash helper
// always), so that a headless agent never maps those libraries.
class DesktopModule {
public:
    virtual ~DesktopModule() = default;

    // `widgets`: the tray, windows and alerts; otherwise Qt Gui only.
    virtual std::unique_ptr<QCoreApplication> makeApplication(int& argc, char** argv, bool widgets) = 0;
    virtual std::unique_ptr<DesktopServices> makeServices() = 0;
    virtual int runCrashHelper(int descriptor, int argc, char** argv) = 0;
};

// Loads the module from beside the program (a build tree) or from ../lib/tellwyn-agent (an
// installation); it stays loaded for the life of the process. None, and why in `error`, when it
// cannot be loaded.
DesktopModule* loadDesktopModule(QString* error);

} // namespace tellwyn

// The module's one entry point.
extern "C" tellwyn::DesktopModule* tellwynDesktopModule();
