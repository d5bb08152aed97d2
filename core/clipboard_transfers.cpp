// Clipboard sharing and file-transfer policy.

#include "server_manager.h"

namespace tellwyn {

// The clipboard monitor comes with clipboard sharing; until then it never runs.
void ServerManager::updateClipboardMonitor() {}

} // namespace tellwyn
