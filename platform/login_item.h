#pragma once

#include <QString>
#include <optional>

namespace tellwyn {

// Starting the agent when the user logs in. Each call answers none on success, else the error's
// full printed description.
class LoginItem {
public:
    virtual ~LoginItem() = default;
    virtual std::optional<QString> registerItem() = 0;
    virtual std::optional<QString> unregisterItem() = 0;
};

} // namespace tellwyn
