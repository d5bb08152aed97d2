#include "agent_options.h"
#include "qt_system_clipboard.h"
#include "crash_reporter.h"
#include "desktop_permission_service.h"
#include "linux_display_probe.h"
#include "linux_system_events.h"
#include "linux_system_identity.h"
#include "pam_account_verifier.h"
#include "secret_service_credential_store.h"
#include "server_log_manager.h"
#include "server_manager.h"
#include "settings_preferences.h"
#include "system_clock.h"
#include "unix_signal_watcher.h"
#include "update_alerts.h"
#include "update_command.h"
#include "x11_screen_capture.h"
#include "x11_screen_source.h"
#include "xdg_autostart_login_item.h"

#include <QApplication>
#include <QCoreApplication>
#include <QDir>
#include <QGuiApplication>
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

std::unique_ptr<QCoreApplication> makeApplication(int& argc, char** argv) {
    // A GUI application cannot start without a display, so the choice is made before Qt starts.
    if (hasArgument(argc, argv, "--headless") || !LinuxDisplayProbe::displayReachable()) {
        return std::make_unique<QCoreApplication>(argc, argv);
    }
    if (hasArgument(argc, argv, "--check-for-updates")) {
        return std::make_unique<QApplication>(argc, argv); // the update alerts and sheet are widgets
    }
    return std::make_unique<QGuiApplication>(argc, argv);
}

int runUpdateCheck(const AgentOptions& options) {
    if (qobject_cast<QApplication*>(QCoreApplication::instance())) {
        UpdateCheckRequest request;
        request.feedURL = resolveUpdateFeedURL(options.updateFeedURL);
        return runWidgetUpdateCheck(request);
    }
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
    // Started by the crash reporter of a crashed agent: report that crash and nothing else.
    if (const std::optional<int> descriptor = crashHelperDescriptor(argc, argv)) {
        return CrashReporter::runHelper(*descriptor, argc, argv);
    }
    const std::unique_ptr<QCoreApplication> application = makeApplication(argc, argv);
    QCoreApplication::setApplicationName(u"tellwyn-agent"_s);
    QCoreApplication::setApplicationVersion(QLatin1String(TELLWYN_VERSION));

    const AgentOptionsParse parsed = parseAgentOptions(QCoreApplication::arguments());
    if (!parsed.options) {
        printTo(parsed.exitCode == 0 ? stdout : stderr, parsed.output);
        return parsed.exitCode;
    }
    const AgentOptions& options = *parsed.options;
    if (options.checkForUpdates) {
        return runUpdateCheck(options);
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
    LinuxDisplayProbe displays;
    LinuxSystemEvents events;
    QtSystemClipboard systemClipboard;
    ServerLogManager::shared().setSystemClipboard(&systemClipboard);

    if (!preferences.problem().isEmpty()) {
        printTo(stderr, u"tellwyn-agent: %1\n"_s.arg(preferences.problem()));
        ServerLogManager::shared().log(preferences.problem(), u"WARN"_s);
    }
    if (options.port) {
        // Stored before the settings load, exactly where a port change would store it.
        preferences.set(PreferenceKey::serverPort, static_cast<int>(*options.port));
    }

    UnixSignalWatcher signals;
    QObject::connect(&signals, &UnixSignalWatcher::terminationRequested, application.get(),
                     [](int) { QCoreApplication::quit(); });

    PamAccountVerifier accountVerifier;
    AgentEnvironment environment{clock,    scheduler, preferences,   identity,
                                 displays, events,    dataDirectory, options.listenAddress};
    environment.accountVerifier = &accountVerifier;
    environment.systemClipboard = &systemClipboard;
    SecretServiceCredentialStore credentialStore;
    environment.credentialStore = &credentialStore;
    XdgAutostartLoginItem loginItem = XdgAutostartLoginItem::forThisProgram();
    environment.loginItem = &loginItem;
    environment.permissions = &desktopPermissionService(dataDirectory);
    environment.makeScreenCapture = [] {
        return std::make_unique<X11ScreenCapture>();
    };
    if (qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY")) {
        environment.makeScreenSource = [] { return std::make_unique<X11ScreenSource>(); };
    } else {
        environment.screenStreamingUnavailable = u"screen streaming on Wayland is not supported yet"_s;
    }
    ServerManager manager(environment);
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
    return QCoreApplication::exec();
}
