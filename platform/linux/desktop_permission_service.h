#pragma once

#include "permission_service.h"

#include <QString>

namespace tellwyn {

// The permission service of this desktop, one for the whole process, so that the agent core and
// the statistics agree on what is granted: the desktop portal in a Wayland session (its grants
// kept in `portal-grants` of `dataDirectory`), the X server otherwise. The first call makes it;
// later calls get that one, whatever folder they name.
PermissionService& desktopPermissionService(const QString& dataDirectory = QString());

} // namespace tellwyn
