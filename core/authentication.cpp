// Sign-in: dispatch by method, the account check, rate limiting and the outcome.

#include "server_manager.h"

using namespace Qt::StringLiterals;

namespace tellwyn {

// The account check arrives with the authentication queue; until then every sign-in is refused.
void ServerManager::handleAuthentication(const AuthenticationMessage&, const QString& key) {
    const auto client = m_serverState.connectedClients.value(key);
    if (client) {
        client->sendEncryptedMessage(
            AuthenticationResponseMessage{false, std::nullopt, u"Sign-in is not available."_s, std::nullopt});
    }
}

} // namespace tellwyn
