#pragma once

#include <functional>

namespace tellwyn {

// Watches the host's network path (its interfaces and their addresses).
class NetworkPathMonitor {
public:
    // Destruction stops the monitor and waits for a handler that is running to return.
    virtual ~NetworkPathMonitor() = default;

    // Starts watching. `onPathUpdate` runs on the monitor's own thread: once for the first path
    // seen after the start, then once for every change of the path.
    virtual void start(std::function<void()> onPathUpdate) = 0;
};

} // namespace tellwyn
