#pragma once

#include "host_probes.h"

#include <QHash>
#include <chrono>
#include <optional>
#include <utility>

namespace tellwyn {

class DesktopSession;
class PermissionService;
class SystemIdentity;
class WindowSystem;

// The figures of a Linux machine: /proc, /sys and /etc files, statvfs, getifaddrs and
// CLOCK_BOOTTIME, the desktop session and window system, and a few tools. Which source feeds
// which figure is listed in docs/linux-platform.md.
class LinuxHostProbes final : public HostProbes {
public:
    // Where the probes look; tests point them at sample files and stand-ins.
    struct Sources {
        QString root = QStringLiteral("/"); // prefix of every /proc, /sys, /etc and /dev path read
        std::function<QString(const QString&, const QStringList&, std::chrono::milliseconds)> runTool;
        std::function<std::optional<DiskCapacity>(const QString& path)> capacity;
        std::function<QList<InterfaceCandidate>()> interfaces;
        std::function<double()> uptime;
        QString ownLoginName;
        qint64 ownPid = 0;
        QStringList applicationFolders; // where desktop entries are looked up
    };
    static Sources systemSources(const SystemIdentity& identity);

    LinuxHostProbes(DesktopSession& session, WindowSystem& windows, PermissionService& permissions,
                    Sources sources);

    std::optional<QString> activeApplicationName() override;
    void observeSleepAndWake(QObject* context, std::function<void(bool goingToSleep)> handler) override;
    QString powerLogLine(const QString& word) override;

    quint64 physicalMemory() override;
    quint64 freeMemory() override;
    DiskCapacity rootDiskCapacity() override;
    std::optional<CpuTicks> cpuTicks() override;
    QString osVersion() override;
    QString model() override;
    double uptimeSeconds() override;
    bool screenCaptureAuthorized() override;
    bool accessibilityAuthorized() override;
    std::optional<bool> screenLocked() override;
    std::optional<InterfaceAddress> primaryInterface() override;
    QString loggedInUser() override;
    QString networkName(const std::optional<InterfaceAddress>& primary) override;
    Displays displays() override;
    QString serialNumber() override;
    QString hardwareUUID() override;
    bool diskEncryptionEnabled() override;
    bool platformIntegrityEnabled() override;
    bool applicationAssessmentEnabled() override;
    bool managementEnrolled() override;
    QList<HLVPDiskVolumeInfo> volumes() override;

private:
    QString path(const QString& absolute) const;
    QByteArray read(const QString& absolute) const;
    bool sitsOnDmCrypt(const QString& blockDevice, int depth) const;
    // "dm-1" for /dev/mapper/vg-root, "sda1" for /dev/sda1.
    QString blockDeviceName(const QString& source) const;
    QString applicationName(qint64 pid, const QString& windowClass);
    QList<std::pair<QString, DesktopEntry>> readDesktopEntries() const;

    DesktopSession& m_session;
    WindowSystem& m_windows;
    PermissionService& m_permissions;
    Sources m_sources;
    // Main thread: the applications' desktop entries, read once, and the names found so far.
    std::optional<QList<std::pair<QString, DesktopEntry>>> m_desktopEntries; // (file name stem, entry)
    QHash<QString, QString> m_desktopNames; // "executable/class" -> the name reported
};

} // namespace tellwyn
