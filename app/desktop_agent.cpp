#include "desktop_agent.h"

#include "about_window.h"
#include "administrator_authorization.h"
#include "app_delegate.h"
#include "content_view.h"
#include "launch_animation.h"
#include "linux/freedesktop_file_revealer.h"
#include "menu_animation.h"
#include "single_instance.h"
#include "status_bar_manager.h"
#include "status_icon.h"
#include "update_check.h"

#include <QApplication>
#include <QDesktopServices>
#include <QNetworkAccessManager>

using namespace Qt::StringLiterals;

namespace tellwyn {

int runDesktopAgent(const AgentEnvironment& environment, SingleInstance& instance,
                    const std::optional<QString>& updateFeedURL,
                    std::function<void(ServerManager&)> prepare) {
    QApplication::setQuitOnLastWindowClosed(false); // the agent lives in the panel
    QNetworkAccessManager network;
    FreedesktopFileRevealer revealer;
    PolkitAuthorization administrator;
    LaunchAnimationController launchAnimation(environment.clock, environment.scheduler);
    MenuAnimationController menuAnimation(environment.clock, environment.scheduler);
    const auto openURL = [](const QUrl& url) {
        QDesktopServices::openUrl(url);
    };

    std::unique_ptr<AboutWindow> about;
    const auto showAbout = [&] {
        if (!about) {
            UpdateCheckRequest request;
            request.feedURL = resolveUpdateFeedURL(updateFeedURL);
            about = std::make_unique<AboutWindow>(AboutWindow::Services{
                UpdateSheetServices{environment.scheduler, &network, revealer, openURL, {}}, request,
                openURL});
        }
        about->showWindow();
    };

    AppDelegate delegate(AppDelegate::Parts{
        [&] {
            auto manager = std::make_unique<ServerManager>(environment);
            prepare(*manager);
            return manager;
        },
        [&](ServerManager& manager) {
            return std::make_unique<StatusBarManager>(
                manager, StatusBarServices{environment.preferences, environment.scheduler, administrator,
                                           [&manager, &environment](QWidget* parent) {
                                               return new ContentView(manager, parent,
                                                                      environment.preferences);
                                           },
                                           showAbout,
                                           [] {
                                               QCoreApplication::quit();
                                           }});
        },
        launchAnimation, menuAnimation, environment.scheduler});
    instance.setShowMainWindow([&delegate] {
        if (StatusBarManager* statusBar = delegate.statusBarManager()) {
            statusBar->showMainWindow();
        }
    });
    QMetaObject::invokeMethod(
        &delegate, [&delegate] { delegate.applicationDidFinishLaunching(); }, Qt::QueuedConnection);
    const int exitCode = QCoreApplication::exec();
    about.reset();
    return exitCode;
}

} // namespace tellwyn
