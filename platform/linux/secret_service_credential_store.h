#pragma once

#include "hlvp_credential_store.h"

#include <chrono>

namespace tellwyn {

// The credential store on the Secret Service (GNOME Keyring, KWallet) through QtKeychain: one
// item, service "TellwynAgent", key "agent-ui-lock". Each call waits for the keyring's answer on a
// thread of its own, at most `timeout`, so that a keyring that never answers cannot hang the agent.
class SecretServiceCredentialStore final : public HLVPCredentialStore {
public:
    explicit SecretServiceCredentialStore(std::chrono::milliseconds timeout = std::chrono::seconds(10));

    Lookup agentLockPassword() override;
    std::optional<QString> saveAgentLockPassword(const QString& password) override;

private:
    std::chrono::milliseconds m_timeout;
};

} // namespace tellwyn
