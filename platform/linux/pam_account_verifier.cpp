#include "pam_account_verifier.h"

#include <QFileInfo>
#include <cstdlib>
#include <cstring>
#include <security/pam_appl.h>

using namespace Qt::StringLiterals;

namespace tellwyn {

namespace {

struct Conversation {
    const QByteArray* password;
};

// Answers every hidden prompt with the password and every visible one with nothing; messages
// from the modules are not shown to anybody.
int converse(int count, const struct pam_message** messages, struct pam_response** responses, void* data) {
    if (count <= 0 || count > PAM_MAX_NUM_MSG) {
        return PAM_CONV_ERR;
    }
    auto* replies = static_cast<pam_response*>(std::calloc(size_t(count), sizeof(pam_response)));
    if (replies == nullptr) {
        return PAM_BUF_ERR;
    }
    const auto* conversation = static_cast<const Conversation*>(data);
    for (int i = 0; i < count; ++i) {
        if (messages[i]->msg_style == PAM_PROMPT_ECHO_OFF) {
            replies[i].resp =
                strndup(conversation->password->constData(), size_t(conversation->password->size()));
            if (replies[i].resp == nullptr) {
                for (int j = 0; j < i; ++j) {
                    std::free(replies[j].resp);
                }
                std::free(replies);
                return PAM_BUF_ERR;
            }
        }
    }
    *responses = replies;
    return PAM_SUCCESS;
}

// The agent limits attempts itself; the modules' own pause after a failure would only hold up the
// checks queued behind this one.
void noFailDelay(int, unsigned, void*) {
}

} // namespace

PamAccountVerifier::PamAccountVerifier(QString pamDirectory, QString service)
    : m_pamDirectory(std::move(pamDirectory)), m_service(std::move(service)) {
}

QString PamAccountVerifier::serviceName() const {
    if (!m_service.isEmpty()) {
        return m_service;
    }
    return QFileInfo::exists(m_pamDirectory + u"/tellwyn-agent"_s) ? u"tellwyn-agent"_s : u"login"_s;
}

AccountVerifier::Result PamAccountVerifier::verifyPassword(const QString& userName, const QString& password,
                                                           const QString& remoteHost) {
    QByteArray secret = password.toUtf8();
    Conversation conversation{&secret};
    const pam_conv conv{&converse, &conversation};
    const QByteArray service = serviceName().toUtf8();
    const QByteArray user = userName.toUtf8();

    pam_handle_t* handle = nullptr;
    int status = pam_start(service.constData(), user.constData(), &conv, &handle);
    if (status != PAM_SUCCESS) {
        wipeSecret(secret);
        return {false, QString::fromUtf8(pam_strerror(handle, status))};
    }
    pam_set_item(handle, PAM_FAIL_DELAY, reinterpret_cast<const void*>(&noFailDelay));
    const QByteArray host = remoteHost.toUtf8();
    if (!host.isEmpty()) {
        pam_set_item(handle, PAM_RHOST, host.constData());
    }
    pam_set_item(handle, PAM_TTY, "tellwyn");
    status = pam_authenticate(handle, PAM_SILENT | PAM_DISALLOW_NULL_AUTHTOK);
    if (status == PAM_SUCCESS) {
        status = pam_acct_mgmt(handle, PAM_SILENT | PAM_DISALLOW_NULL_AUTHTOK);
    }
    const QString error = status == PAM_SUCCESS ? QString() : QString::fromUtf8(pam_strerror(handle, status));
    pam_end(handle, status);
    wipeSecret(secret);
    return {status == PAM_SUCCESS, error};
}

} // namespace tellwyn
