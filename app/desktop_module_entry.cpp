// The desktop module: builds the desktop services for the agent that loaded it.

#include "crash_reporter.h"
#include "desktop_agent.h"
#include "desktop_module.h"
#include "linux/desktop_permission_service.h"
#include "linux/freedesktop_file_revealer.h"
#include "linux/linux_display_probe.h"
#include "linux/qt_system_clipboard.h"
#include "linux/secret_service_credential_store.h"
#include "linux/system_clock.h"
#include "linux/x11_input_injector.h"
#include "linux/x11_screen_capture.h"
#include "linux/x11_screen_source.h"
#include "linux/x11_window_system.h"
#include "single_instance.h"
#include "update_alerts.h"
#include "update_check.h"

#include <QApplication>
#include <QDBusConnection>
#include <QGuiApplication>

namespace tellwyn {

namespace {

class Services final : public DesktopServices {
public:
    std::unique_ptr<DisplayProbe> makeDisplayProbe() override {
        return std::make_unique<LinuxDisplayProbe>();
    }
    std::unique_ptr<SystemClipboard> makeClipboard() override {
        return std::make_unique<QtSystemClipboard>();
    }
    std::unique_ptr<PermissionService> makePermissionService(const QString& dataDirectory) override {
        return makeDesktopPermissionService(dataDirectory);
    }
    std::unique_ptr<WindowSystem> makeWindowSystem() override { return std::make_unique<X11WindowSystem>(); }
    std::unique_ptr<HLVPCredentialStore> makeCredentialStore() override {
        // Without a session bus there is no keyring to ask.
        if (!QDBusConnection::sessionBus().isConnected()) {
            return nullptr;
        }
        return std::make_unique<SecretServiceCredentialStore>();
    }
    std::function<std::unique_ptr<HLVPScreenCapture>()> screenCaptureFactory() override {
        return [] {
            return std::make_unique<X11ScreenCapture>();
        };
    }
    std::function<std::unique_ptr<InputInjector>()> inputInjectorFactory() override {
        return [] {
            return std::make_unique<X11InputInjector>();
        };
    }
    std::function<std::unique_ptr<ScreenSource>()> screenSourceFactory() override {
        return [] {
            return std::make_unique<X11ScreenSource>();
        };
    }

    bool claimDesktop() override { return m_instance.claim() != SingleInstance::Claim::heldByAnother; }
    int runAgent(const AgentEnvironment& environment, const std::optional<QString>& updateFeedURL,
                 std::function<void(ServerManager&)> prepare) override {
        return runDesktopAgent(environment, m_instance, updateFeedURL, std::move(prepare));
    }
    int runUpdateCheck(const std::optional<QString>& updateFeedURL) override {
        UpdateCheckRequest request;
        request.feedURL = resolveUpdateFeedURL(updateFeedURL);
        QtScheduler scheduler;
        FreedesktopFileRevealer revealer;
        return runWidgetUpdateCheck(request, scheduler, revealer);
    }

private:
    SingleInstance m_instance;
};

class Module final : public DesktopModule {
public:
    std::unique_ptr<QCoreApplication> makeApplication(int& argc, char** argv, bool widgets) override {
        if (widgets) {
            return std::make_unique<QApplication>(argc, argv); // the tray, windows, alerts and sheets
        }
        return std::make_unique<QGuiApplication>(argc, argv);
    }
    std::unique_ptr<DesktopServices> makeServices() override { return std::make_unique<Services>(); }
    int runCrashHelper(int descriptor, int argc, char** argv) override {
        return CrashReporter::runHelper(descriptor, argc, argv);
    }
};

} // namespace

} // namespace tellwyn

extern "C" __attribute__((visibility("default"))) tellwyn::DesktopModule* tellwynDesktopModule() {
    static tellwyn::Module module;
    return &module;
}
