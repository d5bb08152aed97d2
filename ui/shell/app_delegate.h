#pragma once

#include <QObject>
#include <functional>
#include <memory>

namespace tellwyn {

class LaunchAnimationController;
class MenuAnimationController;
class Scheduler;
class ServerManager;
class StatusBarManager;

// The desktop agent's start-up: the agent core, then the tray, then the launch and menu
// animations, and on the very first run the main window.
class AppDelegate final : public QObject {
    Q_OBJECT
public:
    struct Parts {
        std::function<std::unique_ptr<ServerManager>()> makeServerManager;
        std::function<std::unique_ptr<StatusBarManager>(ServerManager&)> makeStatusBarManager;
        LaunchAnimationController& launchAnimation;
        MenuAnimationController& menuAnimation;
        Scheduler& scheduler;
    };

    explicit AppDelegate(Parts parts, QObject* parent = nullptr);
    ~AppDelegate() override;

    // Runs once the event loop is about to start.
    void applicationDidFinishLaunching();

    ServerManager* serverManager() const { return m_serverManager.get(); }
    StatusBarManager* statusBarManager() const { return m_statusBarManager.get(); }
    bool hasPlayedLaunchAnimation() const { return m_hasPlayedLaunchAnimation; }
    bool menuAnimationPlayed() const { return m_menuAnimationPlayed; }

private:
    void finishLaunchSequence();
    void openWindowOnFirstLaunch();

    Parts m_parts;
    std::unique_ptr<ServerManager> m_serverManager;
    std::unique_ptr<StatusBarManager> m_statusBarManager;
    bool m_hasPlayedLaunchAnimation = false;
    bool m_menuAnimationPlayed = false;
};

} // namespace tellwyn
