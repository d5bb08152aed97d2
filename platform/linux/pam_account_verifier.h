#pragma once

#include "account_verifier.h"

namespace tellwyn {

// Checks passwords with PAM: pam_authenticate, then pam_acct_mgmt, on the service
// "tellwyn-agent" when /etc/pam.d/tellwyn-agent exists, else on "login". Works for the account
// the agent runs as, also when that is not root (pam_unix asks its setgid helper).
class PamAccountVerifier final : public AccountVerifier {
public:
    explicit PamAccountVerifier(QString pamDirectory = QStringLiteral("/etc/pam.d"));

    Result verifyPassword(const QString& userName, const QString& password) override;
    QString serviceName() const;

private:
    QString m_pamDirectory;
};

} // namespace tellwyn
