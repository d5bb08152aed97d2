#pragma once

#include "network_path_monitor.h"

#include <QString>
#include <memory>

class QThread;

namespace tellwyn {

// Watches the kernel's routing socket for interfaces going up or down and addresses coming and
// going, on a thread of its own. A batch of kernel messages that changes the set of usable
// interfaces or their addresses counts as one path change.
class NetlinkPathMonitor final : public NetworkPathMonitor {
public:
    explicit NetlinkPathMonitor(QString threadName);
    ~NetlinkPathMonitor() override;

    void start(std::function<void()> onPathUpdate) override;

private:
    QString m_threadName;
    int m_wakeFd = -1;
    std::unique_ptr<QThread> m_thread;
};

} // namespace tellwyn
