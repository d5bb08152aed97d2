#include "agent_options.h"
#include "crash_reporter.h"
#include "desktop_module.h"
#include "linux_host_probes.h"
#include "server_log_manager.h"
#include "server_manager.h"
#include "service_advertiser.h"
#include "system_stats_provider.h"
#include "update_check.h"
#include "update_command.h"
#include "window_system.h"

// The application is where the Linux implementations are chosen and built, one of each.
#include "linux/avahi_service_publisher.h"
#include "linux/linux_system_events.h"
#include "linux/linux_system_identity.h"
#include "linux/logind_desktop_session.h"
#include "linux/netlink_path_monitor.h"
#include "linux/pam_account_verifier.h"
#include "linux/settings_preferences.h"
#include "linux/system_clock.h"
#include "linux/unix_signal_watcher.h"
#include "linux/x11_display.h"
#include "linux/xdg_autostart_login_item.h"

#include <QCoreApplication>
#include <QDir>
#include <QNetworkAccessManager>
#include <QStandardPaths>
#include <cstdio>
#include <cstring>
#include <malloc.h>
#include <memory>

using namespace Qt::StringLiterals;
using namespace tellwyn;

namespace {

bool hasArgument(int argc, char** argv, const char* name) {
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], name) == 0) {
            return true;
        }
    }
    return false;
}

void printTo(FILE* stream, const QString& text) {
    const QByteArray bytes = text.toLocal8Bit();
    std::fwrite(bytes.constData(), 1, static_cast<size_t>(bytes.size()), stream);
    std::fflush(stream);
}

// What a headless agent has instead of a desktop: no windows, and no permission to capture or
// inject (nothing to capture, nowhere to inject).
class NoWindows final : public WindowSystem {
public:
    QList<WindowOwner> frontWindowOwners() override { return {}; }
    Screens screens() override { return {}; }
};

class NoDesktopPermissions final : public PermissionService {
public:
    bool screenCaptureAllowed() override { return false; }
    bool requestScreenCapture() override { return false; }
    bool inputInjectionAllowed() override { return false; }
    bool requestInputInjection() override { return false; }
    bool openSettings(SettingsPage) override { return false; }
};

int runTerminalUpdateCheck(const AgentOptions& options) {
    QNetworkAccessManager network;
    QtScheduler scheduler;
    UpdateCommandOptions commandOptions;
    commandOptions.check.feedURL = resolveUpdateFeedURL(options.updateFeedURL);
    commandOptions.download = options.downloadUpdate;
    TerminalUpdateCommand command(network, scheduler, commandOptions);
    UnixSignalWatcher signals;
    QObject::connect(&signals, &UnixSignalWatcher::terminationRequested, &command,
                     [&command](int) { command.interrupt(); });
    QObject::connect(&command, &TerminalUpdateCommand::finished, &command,
                     [](int exitCode) { QCoreApplication::exit(exitCode); });
    command.start();
    return QCoreApplication::exec();
}

QString folderOr(const QString& chosen, QStandardPaths::StandardLocation location) {
    return QDir(chosen.isEmpty() ? QStandardPaths::writableLocation(location) : chosen).absolutePath();
}

} // namespace

int main(int argc, char** argv) {
    // Uploads pass through in buffers of a few hundred KiB: keep such blocks in the heap and the
    // heap from shrinking after each, instead of mapping, zeroing and unmapping fresh pages for
    // every piece of every file.
    mallopt(M_MMAP_THRESHOLD, 4 * 1024 * 1024);
    mallopt(M_TRIM_THRESHOLD, 32 * 1024 * 1024);
    // Freed heap blocks are overwritten at once, so that what passed through buffers the agent
    // cannot reach does not linger: above all the TLS library's record buffer, which holds a
    // sign-in's password in clear after decrypting it in place. (Small blocks that the allocator
    // keeps per thread for reuse are not covered; the agent wipes its own copies of a password.)
    mallopt(M_PERTURB, 0x5a);
    // Started by the crash reporter of a crashed agent: report that crash and nothing else.
    if (const std::optional<int> descriptor = crashHelperDescriptor(argc, argv)) {
        QString error;
        DesktopModule* module = loadDesktopModule(&error);
        if (module == nullptr) {
            printTo(stderr, u"tellwyn-agent: the crash cannot be reported: %1\n"_s.arg(error));
            return 1;
        }
        return module->runCrashHelper(*descriptor, argc, argv);
    }
    // The desktop side is loaded only where a display answers; the choice is made before Qt starts,
    // since a GUI application cannot start without one.
    QString moduleError;
    DesktopModule* desktopModule = desktopDisplayReachable() ? loadDesktopModule(&moduleError) : nullptr;
    const bool headless = desktopModule == nullptr || hasArgument(argc, argv, "--headless");
    const bool widgets = hasArgument(argc, argv, "--check-for-updates") || wantsDesktop(argc, argv);
    const std::unique_ptr<QCoreApplication> application =
        headless ? std::make_unique<QCoreApplication>(argc, argv)
                 : desktopModule->makeApplication(argc, argv, widgets);
    const std::unique_ptr<DesktopServices> desktopServices =
        desktopModule != nullptr ? desktopModule->makeServices() : nullptr;
    QCoreApplication::setApplicationName(u"tellwyn-agent"_s);
    QCoreApplication::setApplicationVersion(QLatin1String(TELLWYN_VERSION));

    const AgentOptionsParse parsed = parseAgentOptions(QCoreApplication::arguments());
    if (!parsed.options) {
        printTo(parsed.exitCode == 0 ? stdout : stderr, parsed.output);
        return parsed.exitCode;
    }
    const AgentOptions& options = *parsed.options;
    if (!moduleError.isEmpty()) {
        printTo(stderr, u"tellwyn-agent: running without the desktop: %1\n"_s.arg(moduleError));
    }
    if (options.checkForUpdates) {
        return !headless ? desktopServices->runUpdateCheck(options.updateFeedURL)
                         : runTerminalUpdateCheck(options);
    }

    // On a desktop a second launch shows the running agent's window instead of starting another.
    const bool desktop = !headless && widgets;
    if (desktop && !desktopServices->claimDesktop()) {
        return 0;
    }

    const QString configDirectory = folderOr(options.configDirectory, QStandardPaths::AppConfigLocation);
    const QString dataDirectory = folderOr(options.dataDirectory, QStandardPaths::AppDataLocation);

    SystemClock clock;
    QtScheduler scheduler;
    SettingsPreferences preferences(QDir(configDirectory).filePath(u"tellwyn-agent.conf"_s));
    if (options.crashReporter &&
        preferences.storedBool(QLatin1String(CrashReporter::enabledPreference)).value_or(true)) {
        CrashReporter::install();
    }
    LinuxSystemIdentity identity;
    const std::unique_ptr<DisplayProbe> displays =
        desktopServices ? desktopServices->makeDisplayProbe()
                        : std::unique_ptr<DisplayProbe>(std::make_unique<X11DisplayProbe>());
    LinuxSystemEvents events;
    const std::unique_ptr<SystemClipboard> systemClipboard =
        desktopServices ? desktopServices->makeClipboard() : nullptr;
    ServerLogManager::shared().setSystemClipboard(systemClipboard.get());

    if (!preferences.problem().isEmpty()) {
        printTo(stderr, u"tellwyn-agent: %1\n"_s.arg(preferences.problem()));
        ServerLogManager::shared().log(preferences.problem(), u"WARN"_s);
    }
    UnixSignalWatcher signals;
    QObject::connect(&signals, &UnixSignalWatcher::terminationRequested, application.get(),
                     [](int) { QCoreApplication::quit(); });

    // Declared before the statistics provider and the core, so destroyed after them: the
    // provider's worker reads the session, windows and permissions until the provider is gone.
    const std::unique_ptr<PermissionService> permissions =
        desktopServices ? desktopServices->makePermissionService(dataDirectory)
                        : std::unique_ptr<PermissionService>(std::make_unique<NoDesktopPermissions>());
    LogindDesktopSession desktopSession;
    const std::unique_ptr<WindowSystem> windowSystem =
        desktopServices ? desktopServices->makeWindowSystem()
                        : std::unique_ptr<WindowSystem>(std::make_unique<NoWindows>());
    LinuxHostProbes hostProbes(desktopSession, *windowSystem, *permissions,
                               LinuxHostProbes::systemSources(identity));
    SystemStatsProvider statsProvider(hostProbes, clock);
    ServiceAdvertiser advertiser(
        std::make_unique<AvahiServicePublisher>(),
        std::make_unique<NetlinkPathMonitor>(QString::fromLatin1(ServiceAdvertiser::monitorQueueLabel)),
        scheduler, identity);

    PamAccountVerifier accountVerifier;
    // None without a desktop or a session bus (nor a window to lock).
    const std::unique_ptr<HLVPCredentialStore> credentialStore =
        desktopServices ? desktopServices->makeCredentialStore() : nullptr;
    XdgAutostartLoginItem loginItem = XdgAutostartLoginItem::forThisProgram();
    AgentEnvironment environment{clock,  scheduler,     preferences, identity,     *displays,
                                 events, statsProvider, advertiser,  dataDirectory};
    environment.listenAddress = options.listenAddress;
    environment.port = options.port;
    environment.accountVerifier = &accountVerifier;
    environment.systemClipboard = systemClipboard.get();
    environment.credentialStore = credentialStore.get();
    environment.loginItem = &loginItem;
    environment.permissions = permissions.get();
    if (desktopServices) {
        environment.makeScreenCapture = desktopServices->screenCaptureFactory();
        if (qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY")) {
            environment.makeScreenSource = desktopServices->screenSourceFactory();
            environment.makeInputInjector = desktopServices->inputInjectorFactory();
        } else {
            environment.screenStreamingUnavailable = u"screen streaming on Wayland is not supported yet"_s;
        }
    }
    const auto prepare = [&options](ServerManager& manager) {
        // Without a window the status line has nowhere else to go: it is written to standard error.
        QObject::connect(&manager, &ServerManager::serverStateChanged, &manager,
                         [&manager, last = QString()]() mutable {
                             const QString& status = manager.serverState().statusMessage;
                             if (status != last) {
                                 last = status;
                                 printTo(stderr, u"tellwyn-agent: status: %1\n"_s.arg(status));
                             }
                         });
        if (options.startServer) {
            // Runs after the settings load; with auto-start on, the auto-start does it instead.
            QMetaObject::invokeMethod(
                &manager,
                [&manager] {
                    if (!manager.settingsState().autoStartServer && !manager.serverState().isRunning) {
                        manager.startServer();
                    }
                },
                Qt::QueuedConnection);
        }
    };
    if (desktop) {
        return desktopServices->runAgent(environment, options.updateFeedURL, prepare);
    }
    ServerManager manager(environment);
    prepare(manager);
    return QCoreApplication::exec();
}
