#pragma once

#include "account_verifier.h"

namespace tellwyn {

// Checks passwords with PAM: pam_authenticate, then pam_acct_mgmt, on the service
// "tellwyn-agent" when /etc/pam.d/tellwyn-agent exists, else on "login". Works for the account
// the agent runs as, also when that is not root (pam_unix asks its setgid helper). PAM_RHOST is
// the viewer's address and PAM_TTY "tellwyn", so that pam_access, pam_faillock and the audit
// log see a remote sign-in as they do for ssh.
class PamAccountVerifier final : public AccountVerifier {
public:
    explicit PamAccountVerifier(QString pamDirectory = QStringLiteral("/etc/pam.d"), QString service = {});

    Result verifyPassword(const QString& userName, const QString& password,
                          const QString& remoteHost) override;
    QString serviceName() const;

private:
    QString m_pamDirectory;
    QString m_service; // a fixed service name; empty: chosen as above
};

} // namespace tellwyn
