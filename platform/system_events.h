#pragma once

#include <QObject>

namespace tellwyn {

// Notifications from the session the agent lives in. The base class only carries the signals;
// the platform implementation connects them to the real sources and tests emit them by hand.
class SystemEvents : public QObject {
    Q_OBJECT
public:
    using QObject::QObject;

Q_SIGNALS:
    // The application is about to quit; handlers run synchronously before the event loop ends.
    void willTerminate();
    void screensDidSleep();
    void screensDidWake();
};

} // namespace tellwyn
