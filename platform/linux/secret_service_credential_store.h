#pragma once

#include "hlvp_credential_store.h"

namespace tellwyn {

// The credential store on the Secret Service (GNOME Keyring, KWallet) through QtKeychain: one
// item, service "TellwynAgent", key "agent-ui-lock". The keyring is asked from a thread of its
// own, so a keyring that is slow, or waits for the user to unlock it, never holds up the caller.
class SecretServiceCredentialStore final : public HLVPCredentialStore {
public:
    void agentLockPassword(QObject* context, LookupHandler done) override;
    void saveAgentLockPassword(const QString& password, QObject* context, SaveHandler done) override;
};

} // namespace tellwyn
