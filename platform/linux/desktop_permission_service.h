#pragma once

#include "permission_service.h"

#include <QString>
#include <memory>

namespace tellwyn {

// The permission service of this desktop: the desktop portal in a Wayland session (its grants
// kept in `portal-grants` of `dataDirectory`), the X server otherwise. The application makes one
// and hands it to the agent core and the statistics alike, so that both agree on what is granted.
std::unique_ptr<PermissionService> makeDesktopPermissionService(const QString& dataDirectory);

} // namespace tellwyn
