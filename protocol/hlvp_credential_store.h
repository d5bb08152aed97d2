#pragma once

#include <QString>
#include <functional>
#include <optional>

class QObject;

namespace tellwyn {

// Where the agent keeps its secrets: the user's keyring. Every call returns at once; the answer
// comes later on `context`'s thread, however long the keyring takes (it may be waiting for the
// user to unlock it), and never once `context` is gone.
class HLVPCredentialStore {
public:
    struct Lookup {
        std::optional<QString> password; // none when nothing is stored
        std::optional<QString> error;    // set when the keyring could not be asked
    };
    using LookupHandler = std::function<void(const Lookup&)>;
    // None on success, else the error's description.
    using SaveHandler = std::function<void(const std::optional<QString>& error)>;

    virtual ~HLVPCredentialStore() = default;
    virtual void agentLockPassword(QObject* context, LookupHandler done) = 0;
    virtual void saveAgentLockPassword(const QString& password, QObject* context, SaveHandler done) = 0;
};

} // namespace tellwyn
