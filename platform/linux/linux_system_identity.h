#pragma once

#include "system_identity.h"

#include <QByteArray>

namespace tellwyn {

class LinuxSystemIdentity final : public SystemIdentity {
public:
    explicit LinuxSystemIdentity(QString machineInfoPath = QStringLiteral("/etc/machine-info"))
        : m_machineInfoPath(std::move(machineInfoPath)) {}

    QString loginName() const override;
    // The pretty host name that hostnamed keeps (PRETTY_HOSTNAME of machine-info) when set, else
    // the host name.
    std::optional<QString> localizedComputerName() const override;

    static QString prettyHostname(const QByteArray& machineInfo);

private:
    QString m_machineInfoPath;
};

} // namespace tellwyn
