#pragma once

#include "desktop_session.h"

namespace tellwyn {

// logind on the system bus for the seat's user, its lock state and sleep; the screensaver on the
// session bus when logind does not know the lock state; NetworkManager for network names.
// Every call gives up after one second; a missing bus or service answers "unknown".
class LogindDesktopSession final : public DesktopSession {
    Q_OBJECT
public:
    explicit LogindDesktopSession(QObject* parent = nullptr);

    std::optional<bool> screenLocked() override;
    std::optional<SeatUser> activeSeatUser() override;
    QString wirelessNetworkName(const QString& interfaceName) override;
    QString connectionName(const QString& interfaceName) override;

private Q_SLOTS:
    void onPrepareForSleep(bool goingToSleep);
};

} // namespace tellwyn
