#pragma once

#include <QObject>
#include <QString>
#include <optional>

namespace tellwyn {

// What the statistics ask of the login session and the network services of the desktop: the
// seat's user, the lock state, the network's name, and the announcement of system sleep.
// The base class only carries the signal; the platform implementation emits it from the real
// source and tests emit it by hand.
class DesktopSession : public QObject {
    Q_OBJECT
public:
    using QObject::QObject;

    struct SeatUser {
        QString name;
        bool isGreeter = false; // the display manager's login screen, not a person
    };

    // Whether the graphical session's screen is locked; nothing when no service answers.
    virtual std::optional<bool> screenLocked() = 0;
    // The user of the active session on the main seat; nothing when there is none.
    virtual std::optional<SeatUser> activeSeatUser() = 0;
    // The Wi-Fi network the interface is associated with; empty when it is not a Wi-Fi link.
    virtual QString wirelessNetworkName(const QString& interfaceName) = 0;
    // The name of the network connection active on the interface; empty when none is known.
    virtual QString connectionName(const QString& interfaceName) = 0;

Q_SIGNALS:
    // The system is about to sleep (true) or has just woken (false).
    void prepareForSleep(bool goingToSleep);
};

} // namespace tellwyn
