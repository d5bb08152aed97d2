#pragma once

#include "permission_service.h"

namespace tellwyn {

// Opens GNOME's or KDE's settings at the page nearest to `page`, whichever desktop's settings
// program is installed; false when none is.
bool openDesktopSettings(PermissionService::SettingsPage page);

} // namespace tellwyn
