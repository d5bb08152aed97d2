#pragma once

#include "system_identity.h"

namespace tellwyn {

class LinuxSystemIdentity final : public SystemIdentity {
public:
    QString loginName() const override;
    // hostnamed's pretty host name when set, else the host name.
    std::optional<QString> localizedComputerName() const override;
};

} // namespace tellwyn
