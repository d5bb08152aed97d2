// Screen-recording and accessibility permissions.

#include "server_manager.h"

namespace tellwyn {

// Permission checks come with the permission service; until then screen capture counts as not
// granted, except in headless mode.
void ServerManager::screenCaptureStartupPreflight() {}

void ServerManager::checkScreenCapturePermission() {}

} // namespace tellwyn
