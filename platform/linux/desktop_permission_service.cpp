#include "desktop_permission_service.h"

#include "portal_permission_service.h"
#include "x11_permission_service.h"

#include <QDBusConnection>

using namespace Qt::StringLiterals;

namespace tellwyn {

std::unique_ptr<PermissionService> makeDesktopPermissionService(const QString& dataDirectory) {
    // A Wayland session lets only the portal grant screen capture and input; on X11 anyone on
    // the display may do both.
    if (qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY")) {
        return std::make_unique<X11PermissionService>();
    }
    return std::make_unique<PortalPermissionService>(QDBusConnection::sessionBus(),
                                                     dataDirectory + u"/portal-grants"_s);
}

} // namespace tellwyn
