#pragma once

// Fakes of the platform services, for unit tests.

#include "desktop_session.h"
#include "display_probe.h"
#include "permission_service.h"
#include "preferences.h"
#include "system_clipboard.h"
#include "system_events.h"
#include "system_identity.h"
#include "window_system.h"

#include <QHash>
#include <QVariantMap>

namespace tellwyn::testing {

class FakePreferences final : public Preferences {
public:
    std::optional<QVariant> object(const QString& key) const override {
        const auto it = values.constFind(key);
        return it == values.cend() ? std::nullopt : std::optional<QVariant>(*it);
    }
    void set(const QString& key, const QVariant& value) override { values.insert(key, value); }
    void remove(const QString& key) override { values.remove(key); }

    QVariantMap values;
};

class FakeSystemClipboard final : public SystemClipboard {
public:
    qint64 changeCount() const override { return count; }
    std::optional<QString> string() const override {
        ++reads;
        return text;
    }
    void setString(const QString& value) override {
        text = value;
        ++count;
    }

    qint64 count = 0;
    std::optional<QString> text;
    mutable int reads = 0; // how often the contents were read
};

class FakeSystemIdentity final : public SystemIdentity {
public:
    QString loginName() const override { return login; }
    std::optional<QString> localizedComputerName() const override { return computerName; }

    QString login = QStringLiteral("alice");
    std::optional<QString> computerName = QStringLiteral("Alice's Workstation");
};

class FakeDisplayProbe final : public DisplayProbe {
public:
    int displayCount() const override { return count; }
    int count = 0;
};

// Answers set by the test; read from any thread once set.
class FakeDesktopSession final : public DesktopSession {
    Q_OBJECT
public:
    using DesktopSession::DesktopSession;
    std::optional<bool> screenLocked() override { return locked; }
    std::optional<SeatUser> activeSeatUser() override { return seatUser; }
    QString wirelessNetworkName(const QString& interfaceName) override {
        return wireless.value(interfaceName);
    }
    QString connectionName(const QString& interfaceName) override { return connections.value(interfaceName); }

    std::optional<bool> locked;
    std::optional<SeatUser> seatUser;
    QHash<QString, QString> wireless;
    QHash<QString, QString> connections;
};

class FakeWindowSystem final : public WindowSystem {
public:
    QList<WindowOwner> frontWindowOwners() override { return owners; }
    Screens screens() override { return screenInfo; }

    QList<WindowOwner> owners;
    Screens screenInfo;
};

class FakeSystemEvents final : public SystemEvents {
    Q_OBJECT
public:
    using SystemEvents::SystemEvents;
};

class FakePermissionService final : public PermissionService {
public:
    bool screenCaptureAllowed() override {
        ++screenCaptureQueries;
        return captureAllowed;
    }
    bool requestScreenCapture() override {
        ++screenCaptureRequests;
        return requestAnswer;
    }
    bool inputInjectionAllowed() override { return inputAllowed; }
    bool requestInputInjection() override { return inputAllowed; }
    bool openSettings(SettingsPage page) override {
        openedPages.append(page);
        return settingsOpen;
    }

    bool captureAllowed = false;
    bool requestAnswer = false;
    bool inputAllowed = false;
    bool settingsOpen = true;
    int screenCaptureQueries = 0;
    int screenCaptureRequests = 0;
    QList<SettingsPage> openedPages;
};

} // namespace tellwyn::testing
