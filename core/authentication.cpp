// Sign-in: dispatch by method, the account check on the authentication queue, rate limiting of
// failures per endpoint and per user name, and the outcome.

#include "account_check_timings.h"
#include "account_verifier.h"
#include "blocked_source_log.h"
#include "clock.h"
#include "serial_queue.h"
#include "server_log_manager.h"
#include "server_manager.h"
#include "sign_in_memory.h"
#include "system_identity.h"

#include <QElapsedTimer>
#include <QPointer>
#include <QRandomGenerator>
#include <QThread>
#include <algorithm>
#include <cmath>

using namespace Qt::StringLiterals;

namespace tellwyn {

namespace {

constexpr double maximumBackoffSeconds = 60.0;

double secondsBetween(const QDateTime& from, const QDateTime& to) {
    return double(from.msecsTo(to)) / 1000.0;
}

// The source address in an endpoint key ("address|name"); addresses never hold a bar.
QString hostOfEndpoint(const QString& endpoint) {
    return endpoint.left(endpoint.indexOf(u'|'));
}

} // namespace

void ServerManager::handleAuthentication(const AuthenticationMessage& message, const QString& key) {
    const QString method = message.method == HLVP::AuthenticationMethod::unknown
                               ? message.methodName
                               : HLVP::toString(message.method);
    logClient(key, u"Authentication attempt from %1 with method %2"_s.arg(displayLabel(key), method),
              u"AUTH"_s);
    switch (message.method) {
    case HLVP::AuthenticationMethod::password:
        handleUserCredentialAuthentication(message, key);
        return;
    case HLVP::AuthenticationMethod::challengeResponse:
        logClient(key,
                  u"Rejected unsupported challenge-response authentication from %1"_s.arg(displayLabel(key)),
                  u"AUTH"_s);
        sendAuthenticationFailure(
            key, u"Unsupported authentication method. Server requires username/password authentication."_s);
        return;
    case HLVP::AuthenticationMethod::none:
        logClient(key,
                  u"Rejected no-authentication request from %1 - authentication is required"_s.arg(
                      displayLabel(key)),
                  u"SECURITY"_s);
        sendAuthenticationFailure(key,
                                  u"Authentication is required - no authentication method not allowed"_s);
        return;
    case HLVP::AuthenticationMethod::unknown:
        break;
    }
    log(u"Unknown authentication method: %1"_s.arg(method), u"ERROR"_s);
    sendAuthenticationFailure(key, u"Unsupported authentication method"_s);
}

void ServerManager::handleUserCredentialAuthentication(const AuthenticationMessage& message,
                                                       const QString& key) {
    logClient(key, u"Processing user credential authentication for %1"_s.arg(displayLabel(key)), u"AUTH"_s);
    const auto username = message.credentials.constFind(u"username"_s);
    const auto password = message.credentials.constFind(u"password"_s);
    if (username == message.credentials.cend() || password == message.credentials.cend()) {
        logClient(key, u"Missing username or password for %1"_s.arg(displayLabel(key)), u"AUTH"_s);
        sendAuthenticationFailure(key, u"Missing username or password"_s);
        return;
    }
    if (m_serverUsername.isEmpty()) {
        sendAuthenticationFailure(
            key, u"Server account information is unavailable. Sign in to this computer and try again."_s);
        return;
    }
    const AuthRateLimitKeys keys = makeAuthRateLimitKeys(key, *username);
    const QString host = hostOfEndpoint(keys.endpoint);
    if (isAuthenticationRateLimited(keys)) {
        if (m_blockedSourceLog->noteRefusal(host)) {
            logClient(key, u"Authentication rate-limited for %1"_s.arg(displayLabel(key)), u"SECURITY"_s);
        } else {
            m_quietClients.insert(key);
        }
        sendAuthenticationFailure(key, u"Too many failed authentication attempts. Try again later."_s);
        return;
    }
    m_blockedSourceLog->release(host);
    m_quietClients.remove(key);
    if (m_authenticationInProgress.contains(key)) {
        logClient(key, u"Authentication is already being validated for %1"_s.arg(displayLabel(key)),
                  u"AUTH"_s);
        return;
    }
    if (m_authenticationInProgress.size() >= maximumPendingAuthentications) {
        log(u"Authentication worker queue is full"_s, u"SECURITY"_s);
        sendAuthenticationFailure(key, u"Authentication service is busy. Try again shortly."_s);
        return;
    }
    m_authenticationInProgress.insert(key);
    // Counted against the host and the name at once, so that parallel guesses cannot all pass the
    // limits before the first of them comes back.
    m_queuedAuthChecks[keys.endpoint] += 1;
    m_queuedAuthChecks[keys.username] += 1;
    logClient(key, u"Validating this computer's account credentials for %1"_s.arg(displayLabel(key)),
              u"AUTH"_s);
    const QPointer<ServerManager> weak(this);
    m_authenticationQueue->async([weak, verifier = m_environment.accountVerifier,
                                  identity = &m_environment.identity, userName = *username,
                                  secret = QString(password->constData(), password->size()), key, keys,
                                  timings = m_accountCheckTimings]() mutable {
        const bool valid = verifySystemCredentials(verifier, identity->loginName(), userName, secret,
                                                   hostOfEndpoint(keys.endpoint), *timings);
        wipeSecret(secret);
        QMetaObject::invokeMethod(
            weak,
            [weak, valid, userName, key, keys] {
                if (weak) {
                    weak->handleAuthenticationResult(valid, userName, key, keys);
                }
            },
            Qt::QueuedConnection);
    });
}

AuthRateLimitKeys ServerManager::makeAuthRateLimitKeys(const QString& key, const QString& username) const {
    const QString normalised = username.trimmed().toLower();
    const QString host = m_clientRemoteHosts.value(key, key);
    return {host + u'|' + normalised, u"user:"_s + normalised};
}

bool ServerManager::isAuthFailureBlocked(const std::optional<AuthFailureRecord>& record, qint64 limit) const {
    if (!record) {
        return false;
    }
    const QDateTime now = m_environment.clock.now();
    if (secondsBetween(record->firstFailure, now) > authFailureWindow) {
        return false;
    }
    if (record->count >= limit) {
        return true;
    }
    return record->blockedUntil > now;
}

bool ServerManager::isAuthenticationRateLimited(const AuthRateLimitKeys& keys) const {
    const QDateTime now = m_environment.clock.now();
    // A failure record with the checks still under way added to it.
    const auto recordIn = [&](const QHash<QString, AuthFailureRecord>& map, const QString& key) {
        const auto found = map.constFind(key);
        std::optional<AuthFailureRecord> record;
        if (found != map.cend() && secondsBetween(found->firstFailure, now) <= authFailureWindow) {
            record = *found;
        }
        if (const qint64 queued = m_queuedAuthChecks.value(key); queued > 0) {
            AuthFailureRecord counted = record.value_or(AuthFailureRecord{0, now, now});
            counted.count += queued;
            record = counted;
        }
        return record;
    };
    if (isAuthFailureBlocked(recordIn(m_endpointAuthFailures, keys.endpoint), maxAuthFailuresPerEndpoint)) {
        return true;
    }
    // A host that has signed in to this account lately is judged by its own record only: failures
    // that others cause against the name must not lock the real user out.
    if (m_signInMemory && m_signInMemory->remembers(hostOfEndpoint(keys.endpoint),
                                                    keys.username.mid(qsizetype(sizeof("user:") - 1)), now)) {
        return false;
    }
    return isAuthFailureBlocked(recordIn(m_globalAuthFailures, keys.username), maxAuthFailuresPerUsername);
}

void ServerManager::recordAuthFailure(QHash<QString, AuthFailureRecord>& map, const QString& key) {
    const QDateTime now = m_environment.clock.now();
    const auto found = map.find(key);
    if (found != map.end() && secondsBetween(found->firstFailure, now) <= authFailureWindow) {
        found->count += 1;
        const double wait = std::min(std::pow(2.0, double(found->count - 1)), maximumBackoffSeconds);
        found->blockedUntil = now.addMSecs(qint64(wait * 1000.0));
    } else {
        map.insert(key, AuthFailureRecord{1, now, now.addSecs(1)});
    }
    map.removeIf([&](const QHash<QString, AuthFailureRecord>::iterator& it) {
        return secondsBetween(it->firstFailure, now) > authFailureWindow;
    });
    if (map.size() > maximumAuthFailureEntries) {
        auto oldest = map.begin();
        for (auto it = map.begin(); it != map.end(); ++it) {
            if (it->firstFailure < oldest->firstFailure) {
                oldest = it;
            }
        }
        map.erase(oldest);
    }
}

bool ServerManager::verifySystemCredentials(AccountVerifier* verifier, const QString& loginName,
                                            const QString& userName, const QString& password,
                                            const QString& remoteHost, AccountCheckTimings& timings) {
    auto& log = ServerLogManager::shared();
    if (verifier == nullptr) {
        log.log(u"System authentication failed for user %1: No account check is available."_s.arg(userName),
                u"AUTH"_s);
        return false;
    }
    if (userName != loginName) {
        log.log(u"Username mismatch: expected %1, got %2"_s.arg(loginName, userName), u"AUTH"_s);
        if (const auto pause = timings.draw()) {
            QThread::usleep(static_cast<unsigned long>(pause->count()));
        } else {
            // Nothing measured yet: check the account with a password nobody has, so that this
            // refusal costs what a wrong password costs, and measure it.
            QString throwaway = QString::number(QRandomGenerator::system()->generate64(), 36) + u'\x01';
            QElapsedTimer elapsed;
            elapsed.start();
            verifier->verifyPassword(loginName, throwaway, remoteHost);
            timings.record(std::chrono::microseconds(elapsed.nsecsElapsed() / 1000));
        }
        return false;
    }
    QElapsedTimer elapsed;
    elapsed.start();
    const AccountVerifier::Result result = verifier->verifyPassword(userName, password, remoteHost);
    if (result.valid) {
        log.log(u"System authentication successful for user: %1"_s.arg(userName), u"AUTH"_s);
        return true;
    }
    timings.record(std::chrono::microseconds(elapsed.nsecsElapsed() / 1000));
    log.log(u"System authentication failed for user %1: %2"_s.arg(userName, result.error), u"AUTH"_s);
    return false;
}

void ServerManager::handleAuthenticationResult(bool valid, const QString& userName, const QString& key,
                                               const AuthRateLimitKeys& keys) {
    m_authenticationInProgress.remove(key);
    for (const QString& counted : {keys.endpoint, keys.username}) {
        if (--m_queuedAuthChecks[counted] <= 0) {
            m_queuedAuthChecks.remove(counted);
        }
    }
    if (!m_serverState.connectedClients.contains(key)) {
        log(u"Discarded authentication result for disconnected client %1"_s.arg(key.left(8)), u"AUTH"_s);
        return;
    }
    if (valid) {
        m_endpointAuthFailures.remove(keys.endpoint);
        m_globalAuthFailures.remove(keys.username);
        m_signInMemory->remember(hostOfEndpoint(keys.endpoint), userName, m_environment.clock.now());
        completeAuthentication(key);
        updateClipboardMonitor();
        logClient(key, u"Authentication successful for %1"_s.arg(displayLabel(key)), u"AUTH"_s);
        return;
    }
    recordAuthFailure(m_endpointAuthFailures, keys.endpoint);
    if (m_endpointAuthFailures.value(keys.endpoint).count == maxAuthFailuresPerEndpoint) {
        log(u"%1 is blocked from signing in as '%2' after %3 failed attempts"_s
                .arg(hostOfEndpoint(keys.endpoint), userName)
                .arg(maxAuthFailuresPerEndpoint),
            u"SECURITY"_s);
    }
    recordAuthFailure(m_globalAuthFailures, keys.username);
    log(u"Computer account credential validation failed for user '%1'"_s.arg(userName), u"AUTH"_s);
    sendAuthenticationFailure(key, u"Invalid credentials for this computer's account"_s);
}

void ServerManager::completeAuthentication(const QString& key) {
    const auto client = m_serverState.connectedClients.value(key);
    if (!client) {
        return;
    }
    updateServerState([&](ServerState& state) { state.authenticatedClients.insert(key); });
    if (!client->markAuthenticated()) {
        updateServerState([&](ServerState& state) { state.authenticatedClients.remove(key); });
        logClient(key,
                  u"Authentication completed in an invalid protocol phase for %1"_s.arg(displayLabel(key)),
                  u"SECURITY"_s);
        return;
    }
    logClient(key, u"%1 authenticated successfully"_s.arg(displayLabel(key)), u"AUTH"_s);
    client->sendEncryptedMessage(
        AuthenticationResponseMessage{true, std::nullopt, std::nullopt, std::nullopt},
        [](const std::optional<HLVPError>& error) {
            if (error) {
                ServerLogManager::shared().log(
                    u"Failed to send encrypted message to client: %1"_s.arg(error->localizedDescription()),
                    u"ERROR"_s);
            }
        });
    startStatsPush(key);
}

void ServerManager::sendAuthenticationFailure(const QString& key, const QString& reason) {
    const auto client = m_serverState.connectedClients.value(key);
    if (!client) {
        return;
    }
    logClient(key, u"Authentication failed for %1: %2"_s.arg(displayLabel(key), reason), u"ERROR"_s);
    const QPointer<ServerManager> weak(this);
    client->sendEncryptedMessage(
        AuthenticationResponseMessage{false, std::nullopt, reason, std::nullopt},
        [weak, client, key](const std::optional<HLVPError>& error) {
            if (!weak) {
                client->disconnect();
                return;
            }
            if (error) {
                weak->logClient(key,
                                u"Failed to send authentication failure response to %1: %2"_s.arg(
                                    weak->displayLabel(key), error->localizedDescription()),
                                u"ERROR"_s);
            } else {
                weak->logClient(key,
                                u"Authentication failure response sent to %1"_s.arg(weak->displayLabel(key)),
                                u"AUTH"_s);
            }
            weak->removeClientAfterAuthenticationFailure(client, key);
        });
}

void ServerManager::removeClientAfterAuthenticationFailure(const std::shared_ptr<HLVPServerClient>& client,
                                                           const QString& key) {
    client->disconnect();
    updateServerState([&](ServerState& state) {
        state.connectedClients.remove(key);
        state.authenticatedClients.remove(key);
    });
    forgetClientEntries(key);
}

} // namespace tellwyn
