// Launch at login and the menu-lock password.

#include "clock.h"
#include "hlvp_credential_store.h"
#include "login_item.h"
#include "preferences.h"
#include "server_manager.h"

#include <cmath>

using namespace Qt::StringLiterals;

namespace tellwyn {

namespace {

constexpr double maximumLockWaitSeconds = 30.0;

QDateTime distantPast() {
    return QDateTime(QDate(1, 1, 1), QTime(0, 0), Qt::UTC);
}

// Equal texts give 0; the time taken does not depend on where two texts of equal length differ.
int constantTimeDifference(const QByteArray& a, const QByteArray& b) {
    int result = int((a.size() ^ b.size()) & 0xff);
    const qsizetype longer = std::max(a.size(), b.size());
    for (qsizetype i = 0; i < longer; ++i) {
        const auto x = i < a.size() ? quint8(a.at(i)) : quint8(0);
        const auto y = i < b.size() ? quint8(b.at(i)) : quint8(0);
        result |= x ^ y;
    }
    return result;
}

} // namespace

void ServerManager::loadPasswordProtectionSettings() {
    Preferences& preferences = m_environment.preferences;
    const bool enabled = preferences.boolValue(PreferenceKey::passwordProtectionEnabled);
    const QString legacy = preferences.object(PreferenceKey::serverPassword).value_or(QVariant()).toString();
    HLVPCredentialStore* store = m_environment.credentialStore;
    // An older plain copy works from memory at once; the keyring's copy counts when it arrives.
    updateSettingsState([&](SettingsState& settings) {
        settings.passwordProtectionEnabled = enabled;
        settings.serverPassword = legacy;
    });
    if (store == nullptr) {
        // A machine without a desktop session (a server, an agent started over ssh): there is no
        // keyring to ask and nothing to fail, so it is said once, as a fact.
        log(u"No desktop session: no keyring for the lock password and no window to lock"_s, u"INFO"_s);
    } else if (!legacy.isEmpty()) {
        store->saveAgentLockPassword(legacy, this, [this](const std::optional<QString>& error) {
            if (!error) {
                m_environment.preferences.remove(PreferenceKey::serverPassword);
                log(u"Migrated agent UI-lock password to the keyring"_s, u"AUTH"_s);
            } else {
                log(u"Agent password migration deferred: %1"_s.arg(*error), u"ERROR"_s);
            }
        });
    } else {
        m_lockPasswordPending = true;
        store->agentLockPassword(
            this, [this, request = ++m_lockPasswordRequests](const HLVPCredentialStore::Lookup& lookup) {
                if (request != m_lockPasswordRequests) {
                    return; // a password stored or read since then is the newer one
                }
                m_lockPasswordPending = false;
                if (lookup.error) {
                    log(u"Agent password migration deferred: %1"_s.arg(*lookup.error), u"ERROR"_s);
                } else if (lookup.password) {
                    updateSettingsState(
                        [&](SettingsState& settings) { settings.serverPassword = *lookup.password; });
                }
            });
    }
}

void ServerManager::setPasswordProtection(bool enabled) {
    updateSettingsState([&](SettingsState& settings) { settings.passwordProtectionEnabled = enabled; });
    m_environment.preferences.set(PreferenceKey::passwordProtectionEnabled, enabled);
    log(enabled ? u"Password protection enabled"_s : u"Password protection disabled"_s, u"AUTH"_s);
}

void ServerManager::updateLockPassword(const QString& password, std::function<void(bool stored)> completion) {
    const auto answered = [this, password,
                           completion = std::move(completion)](const std::optional<QString>& error) {
        if (error) {
            log(u"Failed to update agent UI-lock password: %1"_s.arg(*error), u"ERROR"_s);
        } else {
            ++m_lockPasswordRequests;
            m_lockPasswordPending = false;
            updateSettingsState([&](SettingsState& settings) { settings.serverPassword = password; });
            m_environment.preferences.remove(PreferenceKey::serverPassword);
            log(u"Agent UI-lock password updated in the keyring"_s, u"AUTH"_s);
        }
        if (completion) {
            completion(!error);
        }
    };
    if (HLVPCredentialStore* store = m_environment.credentialStore) {
        store->saveAgentLockPassword(password, this, answered);
    } else {
        // Answered later all the same, as a keyring would be.
        QMetaObject::invokeMethod(
            this, [answered] { answered(u"No keyring."_s); }, Qt::QueuedConnection);
    }
}

bool ServerManager::verifyLockPassword(const QString& text) {
    if (m_lockPasswordPending) {
        return false; // nothing to compare with yet; the administrator's way still opens the lock
    }
    const QDateTime now = m_environment.clock.now();
    if (now < m_uiLockBlockedUntil) {
        return false;
    }
    if (constantTimeDifference(text.toUtf8(), m_settingsState.serverPassword.toUtf8()) == 0) {
        m_uiLockFailures = 0;
        m_uiLockBlockedUntil = distantPast();
        return true;
    }
    m_uiLockFailures += 1;
    const double wait = std::min(std::pow(2.0, double(m_uiLockFailures - 1)), maximumLockWaitSeconds);
    m_uiLockBlockedUntil = now.addMSecs(qint64(wait * 1000.0));
    return false;
}

void ServerManager::registerLoginItem() {
    LoginItem* item = m_environment.loginItem;
    const std::optional<QString> error = item != nullptr ? item->registerItem() : u"No login items here."_s;
    if (error) {
        log(u"Failed to register the autostart entry: %1"_s.arg(*error), u"ERROR"_s);
    } else {
        log(u"Registered the autostart entry for launch at login"_s, u"SERVER"_s);
    }
}

void ServerManager::unregisterLoginItem() {
    LoginItem* item = m_environment.loginItem;
    const std::optional<QString> error = item != nullptr ? item->unregisterItem() : u"No login items here."_s;
    if (error) {
        log(u"Failed to remove the autostart entry: %1"_s.arg(*error), u"ERROR"_s);
    } else {
        log(u"Removed the autostart entry"_s, u"SERVER"_s);
    }
}

} // namespace tellwyn
