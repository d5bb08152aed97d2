#pragma once

// The rules by which the host probes read what the system and its tools report. Pure functions
// of their input, so that each rule can be checked on sample files and outputs.

#include "hlvp_messages.h"

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QString>
#include <optional>

namespace tellwyn {

// Host CPU time counters from /proc/stat, in clock ticks: `system` includes interrupt and steal
// time, `idle` includes time waiting for I/O.
struct CpuTicks {
    quint64 user = 0;
    quint64 system = 0;
    quint64 idle = 0;
    quint64 nice = 0;
    friend bool operator==(const CpuTicks&, const CpuTicks&) = default;
};

// An IPv4 address of a network interface, as the interface walk sees it.
struct InterfaceAddress {
    QString name;
    QString address;
    friend bool operator==(const InterfaceAddress&, const InterfaceAddress&) = default;
};

// One row of the mount table.
struct MountEntry {
    QString source;
    QString mountPoint;
    QString fileSystemType;
    QString root; // the part of the file system mounted there: "/" for all of it
    QString majorMinor;
};

// "1.5.1 (42)" from the version and the build number; the version alone without a build
// number; "Unknown" without a version.
QString agentVersionText(const QString& shortVersion, const QString& buildNumber);

// /proc/meminfo values in bytes, keyed by their names.
QHash<QByteArray, quint64> parseMemInfo(const QByteArray& text);
// The first "cpu" line of /proc/stat.
std::optional<CpuTicks> parseCpuTicks(const QByteArray& procStat);
// The busy fraction between two readings; 0.0 when no tick was counted or a counter went back.
double cpuBusyFraction(const CpuTicks& previous, const CpuTicks& current);

// PRETTY_NAME of an os-release file, unquoted; empty when missing.
QString osReleasePrettyName(const QByteArray& osRelease);

// The last line of `output` that contains `word` (case-insensitive), trimmed and cut to 120
// user-perceived characters ("..." after the first 117 when longer); empty when none.
QString latestLogLine(const QString& output, const QStringList& markers);

// The interface of the default route in /proc/net/route (the lowest metric wins).
QString defaultRouteInterface(const QByteArray& procNetRoute);

// Candidate addresses of the interface walk, in list order.
struct InterfaceCandidate {
    QString name;
    bool isIPv4 = false;
    bool isUp = false;
    bool isLoopback = false;
    std::optional<QString> address; // none when it could not be written as text
};
// The first up, non-loopback IPv4 entry whose name is preferred, else the first such entry.
std::optional<InterfaceAddress> choosePrimaryInterface(const QList<InterfaceCandidate>& candidates,
                                                       const QStringList& preferredNames);

// /proc/self/mountinfo, with its octal escapes decoded.
QList<MountEntry> parseMountInfo(const QByteArray& text);
// Block-device and network file systems; not kernel, memory or image file systems.
bool isListedVolume(const MountEntry& mount);
// The label, trimmed; else the last component of the mount point ("/" for the root).
QString volumeName(const QString& label, const QString& mountPoint);
// "/" first, then by name, case-insensitive under the current locale.
void sortVolumes(QList<HLVPDiskVolumeInfo>& volumes);

// The bracketed mode of /sys/kernel/security/lockdown is not "none".
bool lockdownIsActive(const QByteArray& lockdown);
// The value byte of the SecureBoot efivar (after its four attribute bytes) is 1.
bool secureBootIsOn(const QByteArray& efivar);

// Whether an application name may be reported as the one in front: never the agent's own names.
bool isReportableApplicationName(const QString& trimmedName);

// What a desktop entry's [Desktop Entry] group says about its application.
struct DesktopEntry {
    QString name;           // Name=; empty when missing
    QString windowClass;    // StartupWMClass=
    QString executableName; // the file name of the program that Exec= starts
};
DesktopEntry parseDesktopEntry(const QByteArray& desktopFile);

} // namespace tellwyn

namespace tellwyn {
// The SSID of `iw dev IF link`; empty when not connected.
QString iwLinkNetworkName(const QString& output);
// A /dev/disk/by-label entry name with udev's \xNN escapes decoded.
QString decodeUdevLabel(const QString& entryName);
} // namespace tellwyn
