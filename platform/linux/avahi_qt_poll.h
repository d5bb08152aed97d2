#pragma once

#include <avahi-common/watch.h>

namespace tellwyn {

// Runs the Avahi client library on the Qt event loop of the thread that creates it: socket
// watches become QSocketNotifiers and timeouts single-shot QTimers.
class AvahiQtPoll final {
public:
    AvahiQtPoll();
    AvahiQtPoll(const AvahiQtPoll&) = delete;
    AvahiQtPoll& operator=(const AvahiQtPoll&) = delete;

    const AvahiPoll* poll() const { return &m_poll; }

private:
    AvahiPoll m_poll;
};

} // namespace tellwyn
