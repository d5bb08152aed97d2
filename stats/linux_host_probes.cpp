#include "linux_host_probes.h"

#include "desktop_session.h"
#include "permission_service.h"
#include "run_tool.h"
#include "system_identity.h"
#include "window_system.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QObject>
#include <QSet>
#include <QStandardPaths>
#include <arpa/inet.h>
#include <ctime>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <sys/statvfs.h>
#include <sys/utsname.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace tellwyn {

namespace {

using namespace std::chrono_literals;
constexpr auto toolTimeLimit = 5000ms;
constexpr auto systemLogTimeLimit = 3000ms;
constexpr int deepestDeviceStack = 8;

std::optional<HostProbes::DiskCapacity> statvfsCapacity(const QString& path) {
    struct statvfs info {};
    if (::statvfs(QFile::encodeName(path).constData(), &info) != 0) {
        return std::nullopt;
    }
    return HostProbes::DiskCapacity{quint64(info.f_blocks) * info.f_frsize,
                                    quint64(info.f_bavail) * info.f_frsize};
}

QList<InterfaceCandidate> systemInterfaces() {
    QList<InterfaceCandidate> candidates;
    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) != 0) {
        return candidates;
    }
    for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr == nullptr) {
            continue;
        }
        InterfaceCandidate candidate;
        candidate.name = QString::fromLocal8Bit(entry->ifa_name);
        candidate.isIPv4 = entry->ifa_addr->sa_family == AF_INET;
        candidate.isUp = (entry->ifa_flags & IFF_UP) != 0;
        candidate.isLoopback = (entry->ifa_flags & IFF_LOOPBACK) != 0;
        if (candidate.isIPv4) {
            char host[NI_MAXHOST] = {};
            if (::getnameinfo(entry->ifa_addr, sizeof(sockaddr_in), host, sizeof host, nullptr, 0,
                              NI_NUMERICHOST) == 0) {
                candidate.address = QString::fromLatin1(host);
            }
        }
        candidates.append(candidate);
    }
    ::freeifaddrs(list);
    return candidates;
}

double bootTimeSeconds() {
    timespec now{};
    if (::clock_gettime(CLOCK_BOOTTIME, &now) != 0) {
        return 0.0;
    }
    return double(now.tv_sec) + double(now.tv_nsec) / 1e9;
}

QString trimmedText(const QByteArray& bytes) {
    QByteArray text = bytes;
    const qsizetype nul = text.indexOf('\0');
    if (nul >= 0) {
        text.truncate(nul);
    }
    return QString::fromUtf8(text).trimmed();
}

} // namespace

LinuxHostProbes::Sources LinuxHostProbes::systemSources(const SystemIdentity& identity) {
    Sources sources;
    sources.runTool = &tellwyn::runTool;
    sources.capacity = &statvfsCapacity;
    sources.interfaces = &systemInterfaces;
    sources.uptime = &bootTimeSeconds;
    sources.ownLoginName = identity.loginName();
    sources.ownPid = ::getpid();
    for (const QString& folder : QStandardPaths::standardLocations(QStandardPaths::GenericDataLocation)) {
        sources.applicationFolders.append(folder + u"/applications"_s);
    }
    return sources;
}

LinuxHostProbes::LinuxHostProbes(DesktopSession& session, WindowSystem& windows,
                                 PermissionService& permissions, Sources sources)
    : m_session(session), m_windows(windows), m_permissions(permissions), m_sources(std::move(sources)) {
}

QString LinuxHostProbes::path(const QString& absolute) const {
    return m_sources.root == u"/"_s ? absolute : QDir(m_sources.root).filePath(absolute.mid(1));
}

QByteArray LinuxHostProbes::read(const QString& absolute) const {
    QFile file(path(absolute));
    // Files of /proc and /sys report no size: read to the end.
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

std::optional<QString> LinuxHostProbes::activeApplicationName() {
    for (const WindowSystem::WindowOwner& owner : m_windows.frontWindowOwners()) {
        if (owner.pid != 0 && owner.pid == m_sources.ownPid) {
            continue;
        }
        const QString name = applicationName(owner.pid, owner.windowClass).trimmed();
        if (isReportableApplicationName(name)) {
            return name;
        }
    }
    return std::nullopt;
}

QString LinuxHostProbes::applicationName(qint64 pid, const QString& windowClass) {
    // The program's own file name: the kernel's process name is cut at 15 characters.
    QString executable;
    if (pid > 0) {
        executable = QString::fromUtf8(read(u"/proc/%1/cmdline"_s.arg(pid)).split('\0').value(0))
                         .section(u'/', -1)
                         .trimmed();
        if (executable.isEmpty()) {
            executable = trimmedText(read(u"/proc/%1/comm"_s.arg(pid)));
        }
    }
    // The process may be gone already; the window's class then names it.
    if (executable.isEmpty() && windowClass.isEmpty()) {
        return {};
    }
    const QString key = executable + u'/' + windowClass;
    const auto known = m_desktopNames.constFind(key);
    if (known != m_desktopNames.cend()) {
        return *known;
    }
    if (!m_desktopEntries) {
        m_desktopEntries = readDesktopEntries();
    }
    // The entry that names the window's class, else the one whose file is named after the class
    // (reverse-DNS names included), else the one that starts the same program.
    const auto find = [&](auto&& matches) -> QString {
        for (const auto& [fileStem, entry] : std::as_const(*m_desktopEntries)) {
            if (!entry.name.isEmpty() && matches(fileStem, entry)) {
                return entry.name;
            }
        }
        return {};
    };
    const auto same = [](const QString& a, const QString& b) {
        return !a.isEmpty() && a.compare(b, Qt::CaseInsensitive) == 0;
    };
    QString name =
        find([&](const QString&, const DesktopEntry& e) { return same(e.windowClass, windowClass); });
    if (name.isEmpty()) {
        name = find([&](const QString& stem, const DesktopEntry&) {
            return same(stem, windowClass) || same(stem.section(u'.', -1), windowClass);
        });
    }
    if (name.isEmpty()) {
        name = find([&](const QString& stem, const DesktopEntry& e) {
            return same(e.executableName, executable) || same(stem, executable);
        });
    }
    if (name.isEmpty()) {
        name = executable.isEmpty() ? windowClass : executable;
    }
    m_desktopNames.insert(key, name);
    return name;
}

QList<std::pair<QString, DesktopEntry>> LinuxHostProbes::readDesktopEntries() const {
    QList<std::pair<QString, DesktopEntry>> entries;
    QSet<QString> seen; // an entry in an earlier folder hides one of the same name in a later one
    for (const QString& folder : std::as_const(m_sources.applicationFolders)) {
        QDirIterator it(folder, {u"*.desktop"_s}, QDir::Files, QDirIterator::Subdirectories);
        while (it.hasNext()) {
            const QString file = it.next();
            const QString stem = QDir(folder).relativeFilePath(file).chopped(8).replace(u'/', u'-');
            if (seen.contains(stem)) {
                continue;
            }
            seen.insert(stem);
            QFile entry(file);
            if (entry.open(QIODevice::ReadOnly)) {
                entries.append({stem, parseDesktopEntry(entry.read(256 * 1024))});
            }
        }
    }
    return entries;
}

void LinuxHostProbes::observeSleepAndWake(QObject* context, std::function<void(bool)> handler) {
    QObject::connect(&m_session, &DesktopSession::prepareForSleep, context, std::move(handler));
}

QString LinuxHostProbes::powerLogLine(const QString& word) {
    // Only the system's own suspend and resume records count (systemd-sleep writes one when the
    // machine goes to sleep and one when it is back), never other programs' lines that merely
    // mention sleeping or waking.
    static const QStringList sleepRecords{u"Entering sleep state"_s, u"Suspending system"_s};
    static const QStringList wakeRecords{u"System returned from sleep state"_s, u"System resumed"_s};
    const QString output = m_sources.runTool(u"/usr/bin/journalctl"_s,
                                             {u"-b"_s, u"--no-pager"_s, u"-q"_s, u"-o"_s, u"short-iso"_s,
                                              u"-n"_s, u"1000"_s, u"-t"_s, u"systemd-sleep"_s},
                                             systemLogTimeLimit);
    return latestLogLine(output,
                         word.compare(u"Wake"_s, Qt::CaseInsensitive) == 0 ? wakeRecords : sleepRecords);
}

quint64 LinuxHostProbes::physicalMemory() {
    return parseMemInfo(read(u"/proc/meminfo"_s)).value("MemTotal");
}

quint64 LinuxHostProbes::freeMemory() {
    const auto memory = parseMemInfo(read(u"/proc/meminfo"_s));
    if (!memory.contains("MemFree") || !memory.contains("Inactive")) {
        return 0;
    }
    return memory.value("MemFree") + memory.value("Inactive");
}

HostProbes::DiskCapacity LinuxHostProbes::rootDiskCapacity() {
    return m_sources.capacity(u"/"_s).value_or(DiskCapacity{});
}

std::optional<CpuTicks> LinuxHostProbes::cpuTicks() {
    return parseCpuTicks(read(u"/proc/stat"_s));
}

QString LinuxHostProbes::osVersion() {
    for (const QString& file : {u"/etc/os-release"_s, u"/usr/lib/os-release"_s}) {
        const QString pretty = osReleasePrettyName(read(file));
        if (!pretty.isEmpty()) {
            return pretty;
        }
    }
    const QString release = trimmedText(read(u"/proc/sys/kernel/osrelease"_s));
    return release.isEmpty() ? u"Linux"_s : u"Linux "_s + release;
}

QString LinuxHostProbes::model() {
    for (const QString& file : {u"/sys/class/dmi/id/product_name"_s, u"/proc/device-tree/model"_s}) {
        const QString text = trimmedText(read(file));
        if (!text.isEmpty()) {
            return text;
        }
    }
    utsname names{};
    return ::uname(&names) == 0 ? QString::fromLatin1(names.machine) : QString();
}

double LinuxHostProbes::uptimeSeconds() {
    return m_sources.uptime();
}

bool LinuxHostProbes::screenCaptureAuthorized() {
    return m_permissions.screenCaptureAllowed();
}

bool LinuxHostProbes::accessibilityAuthorized() {
    return m_permissions.inputInjectionAllowed();
}

std::optional<bool> LinuxHostProbes::screenLocked() {
    return m_session.screenLocked();
}

std::optional<InterfaceAddress> LinuxHostProbes::primaryInterface() {
    const QString routed = defaultRouteInterface(read(u"/proc/net/route"_s));
    return choosePrimaryInterface(m_sources.interfaces(),
                                  routed.isEmpty() ? QStringList() : QStringList{routed});
}

QString LinuxHostProbes::loggedInUser() {
    // A greeter session is the display manager's login screen, as "loginwindow" is elsewhere: nobody.
    const auto user = m_session.activeSeatUser();
    if (user && !user->isGreeter && !user->name.isEmpty()) {
        return user->name;
    }
    return m_sources.ownLoginName;
}

QString LinuxHostProbes::networkName(const std::optional<InterfaceAddress>& primary) {
    if (!primary) {
        return {};
    }
    QString name = m_session.wirelessNetworkName(primary->name);
    // iw only for a wireless link, so that wired machines start no process for this.
    if (name.isEmpty() && QFileInfo::exists(path(u"/sys/class/net/%1/wireless"_s.arg(primary->name)))) {
        name = iwLinkNetworkName(
            m_sources.runTool(u"/usr/sbin/iw"_s, {u"dev"_s, primary->name, u"link"_s}, toolTimeLimit));
    }
    if (name.isEmpty()) {
        name = m_session.connectionName(primary->name);
    }
    return name.isEmpty() ? primary->name : name;
}

HostProbes::Displays LinuxHostProbes::displays() {
    const WindowSystem::Screens screens = m_windows.screens();
    Displays result{screens.count, {}};
    if (screens.primaryWidth >= 1 && screens.primaryHeight >= 1) {
        result.mainResolution = u"%1 x %2"_s.arg(screens.primaryWidth).arg(screens.primaryHeight);
    }
    return result;
}

QString LinuxHostProbes::serialNumber() {
    return trimmedText(read(u"/sys/class/dmi/id/product_serial"_s));
}

QString LinuxHostProbes::hardwareUUID() {
    return trimmedText(read(u"/sys/class/dmi/id/product_uuid"_s));
}

QString LinuxHostProbes::blockDeviceName(const QString& source) const {
    const QFileInfo info(path(source));
    return info.isSymLink() ? QFileInfo(info.symLinkTarget()).fileName() : info.fileName();
}

bool LinuxHostProbes::sitsOnDmCrypt(const QString& blockDevice, int depth) const {
    if (depth > deepestDeviceStack) {
        return false;
    }
    if (read(blockDevice + u"/dm/uuid"_s).startsWith("CRYPT-")) {
        return true;
    }
    // A device mapped on top of others (LVM on LUKS, RAID): look at what it is made of.
    const QStringList slaves =
        QDir(path(blockDevice + u"/slaves"_s)).entryList(QDir::AllEntries | QDir::NoDotAndDotDot);
    for (const QString& slave : slaves) {
        if (sitsOnDmCrypt(u"/sys/class/block/"_s + slave, depth + 1)) {
            return true;
        }
    }
    return false;
}

bool LinuxHostProbes::diskEncryptionEnabled() {
    std::optional<MountEntry> root;
    for (const MountEntry& mount : parseMountInfo(read(u"/proc/self/mountinfo"_s))) {
        if (mount.mountPoint == u"/"_s) {
            root = mount; // the last mount on "/" is the one in use
        }
    }
    if (!root) {
        return false;
    }
    // Btrfs and the like report a device number of their own: then the device they were mounted from.
    return sitsOnDmCrypt(u"/sys/dev/block/"_s + root->majorMinor, 0) ||
           (root->source.startsWith(u"/dev/"_s) &&
            sitsOnDmCrypt(u"/sys/class/block/"_s + blockDeviceName(root->source), 0));
}

bool LinuxHostProbes::platformIntegrityEnabled() {
    return secureBootIsOn(
               read(u"/sys/firmware/efi/efivars/SecureBoot-8be4df61-93ca-11d2-aa0d-00e098032b8c"_s)) ||
           lockdownIsActive(read(u"/sys/kernel/security/lockdown"_s));
}

bool LinuxHostProbes::applicationAssessmentEnabled() {
    if (read(u"/sys/fs/selinux/enforce"_s).trimmed() == "1") {
        return true;
    }
    if (read(u"/sys/module/apparmor/parameters/enabled"_s).trimmed() != "Y") {
        return false;
    }
    // The profile list is readable by root only; the policy folder shows the loaded profiles to all.
    if (!read(u"/sys/kernel/security/apparmor/profiles"_s).trimmed().isEmpty()) {
        return true;
    }
    return !QDir(path(u"/sys/kernel/security/apparmor/policy/profiles"_s))
                .entryList(QDir::Dirs | QDir::NoDotAndDotDot)
                .isEmpty();
}

bool LinuxHostProbes::managementEnrolled() {
    const auto exists = [this](const QString& file) {
        return QFileInfo::exists(path(file));
    };
    if (exists(u"/etc/sssd/sssd.conf"_s) ||
        !QDir(path(u"/etc/sssd/conf.d"_s)).entryList({u"*.conf"_s}, QDir::Files).isEmpty()) {
        return true;
    }
    if (read(u"/etc/landscape/client.conf"_s).contains("account_name")) {
        return true;
    }
    if (exists(u"/etc/salt/minion_id"_s)) {
        return true;
    }
    if (!exists(u"/usr/sbin/realm"_s)) {
        return false;
    }
    return !m_sources.runTool(u"/usr/sbin/realm"_s, {u"list"_s, u"--name-only"_s}, toolTimeLimit)
                .trimmed()
                .isEmpty();
}

QList<HLVPDiskVolumeInfo> LinuxHostProbes::volumes() {
    // Labels by the device they name.
    QHash<QString, QString> labels;
    const QDir byLabel(path(u"/dev/disk/by-label"_s));
    for (const QFileInfo& entry :
         byLabel.entryInfoList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::System)) {
        labels.insert(QFileInfo(entry.symLinkTarget()).fileName(), decodeUdevLabel(entry.fileName()));
    }

    QHash<QString, MountEntry> byMountPoint; // a later mount hides an earlier one at the same place
    QStringList order;
    for (const MountEntry& mount : parseMountInfo(read(u"/proc/self/mountinfo"_s))) {
        if (!order.contains(mount.mountPoint)) {
            order.append(mount.mountPoint);
        }
        byMountPoint.insert(mount.mountPoint, mount);
    }
    // Each file system once: bind mounts of a folder and further subvolumes show the same space
    // again. The one on "/" comes first, then the first mount of each other.
    QSet<QString> seen;
    if (byMountPoint.contains(u"/"_s)) {
        seen.insert(byMountPoint[u"/"_s].majorMinor);
    }
    QList<HLVPDiskVolumeInfo> volumes;
    for (const QString& mountPoint : std::as_const(order)) {
        const MountEntry& mount = byMountPoint[mountPoint];
        if (!isListedVolume(mount)) {
            continue;
        }
        if (mountPoint != u"/"_s) {
            if (seen.contains(mount.majorMinor)) {
                continue;
            }
            seen.insert(mount.majorMinor);
        }
        const auto capacity = m_sources.capacity(mount.mountPoint);
        if (!capacity || capacity->totalBytes < 1) {
            continue;
        }
        const QString label =
            mount.source.startsWith(u"/dev/"_s) ? labels.value(blockDeviceName(mount.source)) : QString();
        volumes.append({volumeName(label, mount.mountPoint), mount.mountPoint, capacity->totalBytes,
                        capacity->freeBytes});
    }
    // Inside a chroot the table shows only what was mounted there, but "/" is still a disk.
    if (!byMountPoint.contains(u"/"_s)) {
        if (const auto capacity = m_sources.capacity(u"/"_s); capacity && capacity->totalBytes > 0) {
            volumes.append(
                {volumeName(QString(), u"/"_s), u"/"_s, capacity->totalBytes, capacity->freeBytes});
        }
    }
    sortVolumes(volumes);
    return volumes;
}

} // namespace tellwyn
