#pragma once

#include <QString>
#include <optional>

namespace tellwyn {

// Where the agent keeps its secrets: the user's keyring. Calls are synchronous.
class HLVPCredentialStore {
public:
    struct Lookup {
        std::optional<QString> password; // none when nothing is stored
        std::optional<QString> error;    // set when the keyring could not be asked
    };

    virtual ~HLVPCredentialStore() = default;
    virtual Lookup agentLockPassword() = 0;
    // None on success, else the error's description.
    virtual std::optional<QString> saveAgentLockPassword(const QString& password) = 0;
};

} // namespace tellwyn
