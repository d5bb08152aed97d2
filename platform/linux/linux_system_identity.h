#pragma once

#include "system_identity.h"

namespace tellwyn {

class LinuxSystemIdentity final : public SystemIdentity {
public:
    // `machineInfoPath` is where the pretty host name is kept; tests point it at a sample file.
    explicit LinuxSystemIdentity(QString machineInfoPath = QStringLiteral("/etc/machine-info"));

    QString loginName() const override;
    // The pretty host name when one is set, else the host name.
    std::optional<QString> localizedComputerName() const override;

private:
    QString m_machineInfoPath;
};

} // namespace tellwyn
