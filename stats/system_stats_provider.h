#pragma once

#include "hlvp_messages.h"
#include "host_parsing.h"
#include "timed_cache.h"

#include <QDateTime>
#include <QString>
#include <functional>
#include <memory>
#include <optional>

class QObject;
class QThreadPool;

namespace tellwyn {

class Clock;
class HostProbes;
class SerialQueue;

// Assembles the statistics record of this machine. The application makes one for the whole
// process; every snapshot runs on its own serial queue, so the caches below need no lock.
class SystemStatsProvider {
public:
    using SnapshotHandler = std::function<void(SystemStatsMessage snapshot)>;

    static constexpr double securityCacheTTL = 300.0;
    static inline const QString snapshotQueueLabel = QStringLiteral("org.tellwyn.agent.system-stats");

    // A provider reading `probes` and `clock`, which must outlive it.
    SystemStatsProvider(HostProbes& probes, Clock& clock);
    virtual ~SystemStatsProvider();
    SystemStatsProvider(const SystemStatsProvider&) = delete;
    SystemStatsProvider& operator=(const SystemStatsProvider&) = delete;

    // Called on the main thread. Reads the application in front there, measures the rest on the
    // statistics queue and hands the record to `done` on the main thread; nothing is called once
    // `context` is gone.
    virtual void makeSnapshot(QObject* context, SnapshotHandler done);

protected:
    // For stand-ins that override makeSnapshot.
    SystemStatsProvider();

private:
    void installPowerLogObserver();
    QString currentActiveProcess();
    void readPowerLogInBackground(bool atStartUp);
    SystemStatsMessage takeSnapshot(const QString& activeProcess);
    double cpuUsage();
    template <typename T, typename Compute> T once(std::optional<T>& cache, Compute&& compute);

    HostProbes* m_probes = nullptr;
    Clock* m_clock = nullptr;
    std::unique_ptr<SerialQueue> m_snapshotQueue;
    // Reads the system log off the statistics queue, which it must not hold up.
    std::unique_ptr<QThreadPool> m_utilityPool;

    // Statistics queue only.
    std::optional<QString> m_cachedOSVersion;
    std::optional<QString> m_cachedMacModel;
    std::optional<QString> m_cachedSerialNumber;
    std::optional<QString> m_cachedHardwareUUID;
    std::optional<TimedCache<bool>> m_cachedDiskEncryption;
    std::optional<TimedCache<bool>> m_cachedPlatformIntegrity;
    std::optional<TimedCache<bool>> m_cachedApplicationAssessment;
    std::optional<TimedCache<bool>> m_cachedManagementEnrollment;
    QString m_lastSleepCauseCache;
    QString m_lastWakeCauseCache;
    std::optional<CpuTicks> m_lastCPULoadInfo;

    // Main thread only.
    bool m_powerLogObserverInstalled = false;
    QString m_lastReportedActiveProcess = QStringLiteral("System");
    std::unique_ptr<QObject> m_observerContext;
};

} // namespace tellwyn
