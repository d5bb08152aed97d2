#pragma once

#include "hlvp_messages.h"

#include <functional>

class QObject;

namespace tellwyn {

// Assembles the statistics record of this machine. One instance serves the whole process.
class SystemStatsProvider {
public:
    using SnapshotHandler = std::function<void(SystemStatsMessage snapshot)>;

    static SystemStatsProvider& shared();
    virtual ~SystemStatsProvider() = default;

    // Takes a snapshot and hands it to `done` later on `context`'s thread; nothing runs once
    // `context` is gone.
    virtual void makeSnapshot(QObject* context, SnapshotHandler done);

protected:
    SystemStatsProvider() = default;
};

// Memory, disk and uptime figures read from the kernel; the parts of the record that need no
// probing of the desktop.
SystemStatsMessage readBasicSystemStats();

} // namespace tellwyn
