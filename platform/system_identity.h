#pragma once

#include <QString>
#include <optional>

namespace tellwyn {

// Who and where the agent is: the account it runs as and the name people know the computer by.
class SystemIdentity {
public:
    virtual ~SystemIdentity() = default;
    // Login name of the account the agent runs as.
    virtual QString loginName() const = 0;
    // The computer's display name, or nothing when none can be found.
    virtual std::optional<QString> localizedComputerName() const = 0;
};

} // namespace tellwyn
