// Screen-recording and accessibility permissions: cached answers, fresh queries, requests with
// their re-checks, the runtime test capture and the settings page.

#include "clock.h"
#include "display_probe.h"
#include "hlvp_screen_capture.h"
#include "permission_service.h"
#include "server_manager.h"

#include <QPointer>

using namespace Qt::StringLiterals;

namespace tellwyn {

namespace {

const QString screenCaptureKey = u"screenCapture"_s;
const QString accessibilityKey = u"accessibility"_s;
constexpr std::chrono::milliseconds recheckDelays[] = {std::chrono::seconds(1), std::chrono::seconds(3),
                                                       std::chrono::seconds(6)};
constexpr auto refreshGuardTime = std::chrono::seconds(1);
constexpr double testCaptureQuality = 0.05;

QString booleanText(bool value) {
    return value ? u"true"_s : u"false"_s;
}

} // namespace

PermissionService* ServerManager::permissionService() const {
    return m_environment.permissions;
}

std::optional<bool> ServerManager::cachedPermission(const QString& key) const {
    const auto entry = m_permissionCache.constFind(key);
    if (entry == m_permissionCache.cend()) {
        return std::nullopt;
    }
    const double age = double(entry->timestamp.msecsTo(m_environment.clock.now())) / 1000.0;
    return age < permissionCacheTimeout ? std::optional<bool>(entry->value) : std::nullopt;
}

void ServerManager::setScreenCaptureRequiresRelaunch(bool value) {
    if (m_screenCaptureRequiresRelaunch != value) {
        m_screenCaptureRequiresRelaunch = value;
        Q_EMIT screenCaptureRequiresRelaunchChanged();
        Q_EMIT changed();
    }
}

void ServerManager::setRefreshingPermissions(bool value) {
    m_isRefreshingPermissions = value;
    Q_EMIT isRefreshingPermissionsChanged();
    Q_EMIT changed();
}

void ServerManager::refreshScreenRecordingPermission() {
    const bool granted = permissionService() != nullptr && permissionService()->screenCaptureAllowed();
    updatePermissionState(
        [&](PermissionState& permissions) { permissions.screenCaptureAuthorized = granted; });
    if (granted) {
        setScreenCaptureRequiresRelaunch(false);
    }
    m_permissionCache.insert(screenCaptureKey, PermissionCacheEntry{granted, m_environment.clock.now()});
    log(u"Screen recording permission status refreshed: %1"_s.arg(booleanText(granted)), u"PERMISSIONS"_s);
}

void ServerManager::refreshAccessibilityPermission() {
    const bool trusted = permissionService() != nullptr && permissionService()->inputInjectionAllowed();
    updatePermissionState(
        [&](PermissionState& permissions) { permissions.accessibilityAuthorized = trusted; });
    m_permissionCache.insert(accessibilityKey, PermissionCacheEntry{trusted, m_environment.clock.now()});
    log(u"Accessibility permission status refreshed: %1"_s.arg(booleanText(trusted)), u"PERMISSIONS"_s);
}

bool ServerManager::inputInjectionPermitted() {
    // Asked as input arrives, so that a desktop that gained or lost the permission is noticed
    // without anyone opening the permissions page.
    if (!cachedPermission(accessibilityKey)) {
        refreshAccessibilityPermission();
    }
    return m_permissionState.accessibilityAuthorized;
}

void ServerManager::checkScreenCapturePermission() {
    const std::optional<bool> cached = cachedPermission(screenCaptureKey);
    const QPointer<ServerManager> weak(this);
    QMetaObject::invokeMethod(
        this,
        [weak, cached] {
            if (!weak) {
                return;
            }
            if (cached) {
                weak->updatePermissionState(
                    [&](PermissionState& permissions) { permissions.screenCaptureAuthorized = *cached; });
                weak->log(u"Screen capture permissions loaded from cache: %1"_s.arg(booleanText(*cached)),
                          u"PERMISSIONS"_s);
                if (*cached) {
                    weak->setStatusMessage(tr("Ready for connections"));
                }
                return;
            }
            weak->refreshScreenRecordingPermission();
            if (weak->m_permissionState.screenCaptureAuthorized) {
                weak->setStatusMessage(tr("Ready for connections"));
            } else if (weak->m_serverState.isRunning) {
                // clang-format off
                weak->setStatusMessage(tr("Screen capture permission required. Allow screen sharing when the desktop asks, or in the desktop's privacy settings"));
                // clang-format on
            } else {
                weak->setStatusMessage(tr("Ready to start remote service"));
            }
        },
        Qt::QueuedConnection);
}

void ServerManager::screenCaptureStartupPreflight() {
    refreshScreenRecordingPermission();
    log(u"Screen capture startup preflight completed: %1"_s.arg(
            booleanText(m_permissionState.screenCaptureAuthorized)),
        u"PERMISSIONS"_s);
}

void ServerManager::checkAccessibilityPermission() {
    const std::optional<bool> cached = cachedPermission(accessibilityKey);
    const QPointer<ServerManager> weak(this);
    if (!cached) {
        log(u"Checking accessibility permissions"_s, u"PERMISSIONS"_s);
        const TaskPtr task = Task::create();
        trackTask(task);
        QMetaObject::invokeMethod(
            this,
            [weak, task] {
                if (weak) {
                    weak->refreshAccessibilityPermission();
                    weak->log(
                        weak->m_permissionState.accessibilityAuthorized
                            ? u"Accessibility permissions granted"_s
                            : u"Accessibility permissions denied - required for remote control input simulation"_s,
                        u"PERMISSIONS"_s);
                }
                task->finish();
            },
            Qt::QueuedConnection);
        return;
    }
    QMetaObject::invokeMethod(
        this,
        [weak, value = *cached] {
            if (!weak) {
                return;
            }
            weak->updatePermissionState(
                [&](PermissionState& permissions) { permissions.accessibilityAuthorized = value; });
            weak->log(u"Accessibility permissions loaded from cache: %1"_s.arg(booleanText(value)),
                      u"PERMISSIONS"_s);
        },
        Qt::QueuedConnection);
}

void ServerManager::refreshAllPermissions() {
    if (m_isCheckingPermissions) {
        log(u"Permission check already in progress, skipping"_s, u"PERMISSIONS"_s);
        return;
    }
    m_permissionCache.clear();
    m_isCheckingPermissions = true;
    setRefreshingPermissions(true);
    log(u"Refreshing all permissions (cache cleared)"_s, u"PERMISSIONS"_s);
    const TaskPtr task = Task::create();
    trackTask(task);
    const QPointer<ServerManager> weak(this);
    QMetaObject::invokeMethod(
        this,
        [weak, task] {
            if (!weak) {
                task->finish();
                return;
            }
            weak->refreshScreenRecordingPermission();
            weak->refreshAccessibilityPermission();
            task->sleep(weak->m_environment.scheduler, refreshGuardTime, weak, [weak, task] {
                if (weak) {
                    weak->m_isCheckingPermissions = false;
                    weak->setRefreshingPermissions(false);
                }
                task->finish();
            });
        },
        Qt::QueuedConnection);
}

void ServerManager::requestScreenCapturePermission() {
    m_permissionCache.remove(screenCaptureKey);
    if (m_permissionState.screenCaptureAuthorized) {
        log(u"Screen capture permissions already granted, skipping request"_s, u"PERMISSIONS"_s);
        return;
    }
    PermissionService* service = permissionService();
    if (service != nullptr && service->screenCaptureAllowed()) {
        updatePermissionState(
            [](PermissionState& permissions) { permissions.screenCaptureAuthorized = true; });
        m_permissionCache.insert(screenCaptureKey, PermissionCacheEntry{true, m_environment.clock.now()});
        log(u"Screen recording permission already granted by preflight"_s, u"PERMISSIONS"_s);
        setStatusMessage(tr("Ready for connections"));
        validateScreenCaptureRuntime();
        return;
    }
    const bool answer = service != nullptr && service->requestScreenCapture();
    log(u"Screen recording permission request returned: %1"_s.arg(booleanText(answer)), u"PERMISSIONS"_s);
    m_permissionCache.remove(screenCaptureKey);
    checkScreenCapturePermission();
    if (service == nullptr || !service->screenCaptureAllowed()) {
        setScreenCaptureRequiresRelaunch(true);
        // clang-format off
        setStatusMessage(tr("Screen recording is not allowed yet. Answer the desktop's screen-sharing dialog to activate remote viewing."));
        // clang-format on
        log(u"Screen recording request completed, but the desktop has not allowed screen sharing yet"_s,
            u"PERMISSIONS"_s);
        openScreenRecordingSettings();
    }
    const QPointer<ServerManager> weak(this);
    for (const auto delay : recheckDelays) {
        m_environment.scheduler.runAfter(delay, this, [weak] {
            if (!weak) {
                return;
            }
            weak->m_permissionCache.remove(screenCaptureKey);
            weak->checkScreenCapturePermission();
            weak->validateScreenCaptureRuntime();
        });
    }
}

void ServerManager::requestAccessibilityPermission() {
    m_permissionCache.remove(accessibilityKey);
    log(u"Requesting accessibility permission"_s, u"PERMISSIONS"_s);
    const bool answer = permissionService() != nullptr && permissionService()->requestInputInjection();
    log(u"Accessibility permission request returned: %1"_s.arg(booleanText(answer)), u"PERMISSIONS"_s);
    m_permissionCache.remove(accessibilityKey);
    checkAccessibilityPermission();
    const QPointer<ServerManager> weak(this);
    for (const auto delay : recheckDelays) {
        m_environment.scheduler.runAfter(delay, this, [weak] {
            if (weak) {
                weak->m_permissionCache.remove(accessibilityKey);
                weak->checkAccessibilityPermission();
            }
        });
    }
}

void ServerManager::validateScreenCaptureRuntime() {
    if (!m_permissionState.screenCaptureAuthorized) {
        return;
    }
    if (m_environment.displays.displayCount() == 0) {
        log(u"Skipping screen capture runtime validation on headless server"_s, u"PERMISSIONS"_s);
        return;
    }
    if (m_isValidatingScreenCaptureRuntime) {
        return;
    }
    m_isValidatingScreenCaptureRuntime = true;
    log(u"Validating screen capture with a tiny capture"_s, u"PERMISSIONS"_s);
    const TaskPtr task = Task::create();
    trackTask(task);
    std::shared_ptr<HLVPScreenCapture> capture =
        m_environment.makeScreenCapture
            ? std::shared_ptr<HLVPScreenCapture>(m_environment.makeScreenCapture())
            : nullptr;
    if (!capture) {
        log(u"Screen capture validation failed: %1"_s.arg(u"No screen capture on this desktop."_s),
            u"PERMISSIONS"_s);
        finishScreenCaptureValidation(false);
        task->finish();
        return;
    }
    const QPointer<ServerManager> weak(this);
    capture->captureScreen(
        0, testCaptureQuality, this, [weak, capture, task](const HLVPScreenCapture::Result& result) {
            capture->cleanup();
            if (weak) {
                if (const auto* error = std::get_if<HLVPError>(&result)) {
                    weak->log(u"Screen capture validation failed: %1"_s.arg(error->localizedDescription()),
                              u"PERMISSIONS"_s);
                    weak->finishScreenCaptureValidation(false);
                } else {
                    weak->finishScreenCaptureValidation(true);
                }
            }
            task->finish();
        });
}

void ServerManager::finishScreenCaptureValidation(bool success) {
    m_isValidatingScreenCaptureRuntime = false;
    if (success) {
        log(u"Screen capture validation succeeded"_s, u"PERMISSIONS"_s);
        if (m_permissionState.screenCaptureAuthorized) {
            setStatusMessage(tr("Ready for connections"));
        }
    } else if (m_permissionState.screenCaptureAuthorized) {
        // clang-format off
        setStatusMessage(tr("Screen recording is granted, but capture validation failed. Relaunch TellwynAgent if remote viewing does not start."));
        // clang-format on
    }
}

void ServerManager::openScreenRecordingSettings() {
    PermissionService* service = permissionService();
    for (const auto page :
         {PermissionService::SettingsPage::screenSharing, PermissionService::SettingsPage::screenRecording}) {
        if (service != nullptr && service->openSettings(page)) {
            log(u"Opened the desktop's settings for screen sharing"_s, u"PERMISSIONS"_s);
            return;
        }
    }
    if (service != nullptr) {
        service->openSettings(PermissionService::SettingsPage::privacy);
    }
    log(u"Opened the desktop's privacy settings"_s, u"PERMISSIONS"_s);
}

} // namespace tellwyn
