#include "system_stats_provider.h"

#include "alternate_signal_stack.h"
#include "clock.h"
#include "host_probes.h"
#include "serial_queue.h"

#include <QCoreApplication>
#include <QMetaObject>
#include <QObject>
#include <QPointer>
#include <QThreadPool>
#include <cmath>

using namespace Qt::StringLiterals;

namespace tellwyn {

namespace {
const QString sleepRequested = u"Sleep requested"_s;
const QString wake = u"Wake"_s;
const QString sleepWord = u"Sleep"_s;
} // namespace

SystemStatsProvider::SystemStatsProvider() = default;

SystemStatsProvider::SystemStatsProvider(HostProbes& probes, Clock& clock)
    : m_probes(&probes), m_clock(&clock), m_snapshotQueue(std::make_unique<SerialQueue>(snapshotQueueLabel)),
      m_utilityPool(std::make_unique<QThreadPool>()) {
    m_utilityPool->setMaxThreadCount(1);
}

SystemStatsProvider::~SystemStatsProvider() {
    // Log reads post to the queue; they end first, then the queue runs what is left.
    if (m_utilityPool) {
        m_utilityPool->waitForDone();
    }
    m_snapshotQueue.reset();
}

void SystemStatsProvider::makeSnapshot(QObject* context, SnapshotHandler done) {
    installPowerLogObserver();
    const QString activeProcess = currentActiveProcess();
    QPointer<QObject> guard(context);
    m_snapshotQueue->async([this, activeProcess, guard, done = std::move(done)]() mutable {
        SystemStatsMessage snapshot = takeSnapshot(activeProcess);
        QMetaObject::invokeMethod(
            QCoreApplication::instance(),
            [guard, done = std::move(done), snapshot = std::move(snapshot)] {
                if (guard) {
                    done(snapshot);
                }
            },
            Qt::QueuedConnection);
    });
}

void SystemStatsProvider::installPowerLogObserver() {
    if (m_powerLogObserverInstalled) {
        return;
    }
    m_powerLogObserverInstalled = true;
    m_observerContext = std::make_unique<QObject>();
    m_probes->observeSleepAndWake(m_observerContext.get(), [this](bool goingToSleep) {
        if (goingToSleep) {
            m_snapshotQueue->async([this] { m_lastSleepCauseCache = sleepRequested; });
        } else {
            m_snapshotQueue->async([this] { m_lastWakeCauseCache = wake; });
            readPowerLogInBackground(false);
        }
    });
    readPowerLogInBackground(true);
}

void SystemStatsProvider::readPowerLogInBackground(bool atStartUp) {
    m_utilityPool->start([this, atStartUp] {
        ensureAlternateSignalStack();
        if (!atStartUp) {
            const QString wakeLine = m_probes->powerLogLine(wake);
            if (!wakeLine.isEmpty()) {
                m_snapshotQueue->async([this, wakeLine] { m_lastWakeCauseCache = wakeLine; });
            }
            return;
        }
        const QString sleepLine = m_probes->powerLogLine(sleepWord);
        const QString wakeLine = m_probes->powerLogLine(wake);
        m_snapshotQueue->async([this, sleepLine, wakeLine] {
            // A sleep or wake announced meanwhile is newer than the log.
            if (m_lastSleepCauseCache.isEmpty() && !sleepLine.isEmpty()) {
                m_lastSleepCauseCache = sleepLine;
            }
            if (m_lastWakeCauseCache.isEmpty() && !wakeLine.isEmpty()) {
                m_lastWakeCauseCache = wakeLine;
            }
        });
    });
}

QString SystemStatsProvider::currentActiveProcess() {
    if (const std::optional<QString> name = m_probes->activeApplicationName()) {
        m_lastReportedActiveProcess = *name;
    }
    return m_lastReportedActiveProcess;
}

template <typename T, typename Compute>
T SystemStatsProvider::once(std::optional<T>& cache, Compute&& compute) {
    if (!cache) {
        cache = compute();
    }
    return *cache;
}

double SystemStatsProvider::cpuUsage() {
    const std::optional<CpuTicks> current = m_probes->cpuTicks();
    if (!current) {
        return 0.0;
    }
    const double usage = m_lastCPULoadInfo ? cpuBusyFraction(*m_lastCPULoadInfo, *current) : 0.0;
    m_lastCPULoadInfo = current;
    return usage;
}

SystemStatsMessage SystemStatsProvider::takeSnapshot(const QString& activeProcess) {
    HostProbes& probes = *m_probes;
    SystemStatsMessage s;
    s.totalMemory = probes.physicalMemory();
    s.freeMemory = probes.freeMemory();
    const HostProbes::DiskCapacity root = probes.rootDiskCapacity();
    s.totalDiskSpace = root.totalBytes;
    s.freeDiskSpace = root.freeBytes;
    s.cpuUsage = cpuUsage();
    s.osVersion = once(m_cachedOSVersion, [&] { return probes.osVersion(); });
    s.macModel = once(m_cachedMacModel, [&] { return probes.model(); });
    s.activeProcess = activeProcess;
    s.uptimeSeconds = static_cast<quint64>(std::max(0.0, std::trunc(probes.uptimeSeconds())));
    s.agentVersion = agentVersionText(QStringLiteral(TELLWYN_VERSION).trimmed(),
                                      QStringLiteral(TELLWYN_BUILD_NUMBER).trimmed());
    s.screenCaptureAuthorized = probes.screenCaptureAuthorized();
    s.accessibilityAuthorized = probes.accessibilityAuthorized();
    s.screenLocked = probes.screenLocked();
    const std::optional<InterfaceAddress> primary = probes.primaryInterface();
    s.primaryIPAddress = primary ? primary->address : QString();
    s.loggedInUser = probes.loggedInUser();
    s.networkName = probes.networkName(primary);
    const HostProbes::Displays displays = probes.displays();
    s.displayCount = displays.count;
    s.mainDisplayResolution = displays.mainResolution;
    s.serialNumber = once(m_cachedSerialNumber, [&] { return probes.serialNumber(); });
    s.hardwareUUID = once(m_cachedHardwareUUID, [&] { return probes.hardwareUUID(); });
    s.fileVaultEnabled = readThrough(m_cachedDiskEncryption, m_clock->now(), securityCacheTTL,
                                     [&] { return probes.diskEncryptionEnabled(); });
    s.sipEnabled = readThrough(m_cachedPlatformIntegrity, m_clock->now(), securityCacheTTL,
                               [&] { return probes.platformIntegrityEnabled(); });
    s.gatekeeperEnabled = readThrough(m_cachedApplicationAssessment, m_clock->now(), securityCacheTTL,
                                      [&] { return probes.applicationAssessmentEnabled(); });
    s.mdmEnrolled = readThrough(m_cachedManagementEnrollment, m_clock->now(), securityCacheTTL,
                                [&] { return probes.managementEnrolled(); });
    const double uptime = probes.uptimeSeconds();
    s.lastBootTime = m_clock->now().addMSecs(-static_cast<qint64>(std::llround(uptime * 1000.0)));
    s.lastSleepCause = m_lastSleepCauseCache;
    s.lastWakeCause = m_lastWakeCauseCache;
    s.diskVolumes = probes.volumes();
    return s;
}

} // namespace tellwyn
