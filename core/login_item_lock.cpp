// Launch at login and the menu-lock password.

#include "server_manager.h"

namespace tellwyn {

// The lock password lives in the keyring, which comes with the credential store; until then the
// lock stays off.
void ServerManager::loadPasswordProtectionSettings() {}

} // namespace tellwyn
