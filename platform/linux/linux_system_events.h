#pragma once

#include "system_events.h"

namespace tellwyn {

// Termination from QCoreApplication::aboutToQuit; sleep and wake from logind's PrepareForSleep on
// the system bus and the screensaver's ActiveChanged on the session bus. Where a bus or service
// is missing the agent simply gets no such notifications.
class LinuxSystemEvents final : public SystemEvents {
    Q_OBJECT
public:
    explicit LinuxSystemEvents(QObject* parent = nullptr);

private Q_SLOTS:
    void onPrepareForSleep(bool goingToSleep);
    void onScreenSaverActiveChanged(bool active);
};

} // namespace tellwyn
