#include "app_delegate.h"

#include "clock.h"
#include "launch_animation.h"
#include "menu_animation.h"
#include "server_manager.h"
#include "status_bar_manager.h"

using namespace std::chrono_literals;

namespace tellwyn {

AppDelegate::AppDelegate(Parts parts, QObject* parent) : QObject(parent), m_parts(std::move(parts)) {
}

AppDelegate::~AppDelegate() {
    // The tray refers to the agent core: it goes first.
    m_statusBarManager.reset();
    m_serverManager.reset();
}

void AppDelegate::applicationDidFinishLaunching() {
    if (!m_serverManager) {
        m_serverManager = m_parts.makeServerManager();
    }
    if (!m_statusBarManager) {
        m_statusBarManager = m_parts.makeStatusBarManager(*m_serverManager);
    }
    if (m_hasPlayedLaunchAnimation) {
        return;
    }
    m_hasPlayedLaunchAnimation = true;
    // Started from the event loop, after this call has returned.
    m_parts.scheduler.runAfter(0ms, this,
                               [this] { m_parts.launchAnimation.play([this] { finishLaunchSequence(); }); });
}

void AppDelegate::finishLaunchSequence() {
    if (m_menuAnimationPlayed) {
        openWindowOnFirstLaunch();
        return;
    }
    m_menuAnimationPlayed = true;
    m_parts.menuAnimation.play([this] { openWindowOnFirstLaunch(); });
}

void AppDelegate::openWindowOnFirstLaunch() {
    if (!m_serverManager->settingsState().isFirstLaunch) {
        return;
    }
    m_statusBarManager->showMainWindow();
    m_serverManager->finishFirstLaunch();
}

} // namespace tellwyn
