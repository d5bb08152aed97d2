#include "desktop_permission_service.h"

#include "portal_permission_service.h"
#include "x11_permission_service.h"

#include <QDBusConnection>
#include <QStandardPaths>
#include <memory>

using namespace Qt::StringLiterals;

namespace tellwyn {

PermissionService& desktopPermissionService(const QString& dataDirectory) {
    // Never destroyed: the statistics' worker may still ask while the process ends.
    static PermissionService* const service = [&dataDirectory]() -> PermissionService* {
        // A Wayland session lets only the portal grant screen capture and input; on X11 anyone
        // on the display may do both.
        if (qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY")) {
            return new X11PermissionService;
        }
        const QString folder = dataDirectory.isEmpty()
                                   ? QStandardPaths::writableLocation(QStandardPaths::AppDataLocation)
                                   : dataDirectory;
        return new PortalPermissionService(QDBusConnection::sessionBus(), folder + u"/portal-grants"_s);
    }();
    return *service;
}

} // namespace tellwyn
