// The host probes of Linux on sample /proc, /sys, /etc and /dev trees of two machines, with the
// desktop session, window system and tools stood in; the parse rules on sample tool outputs;
// and tool runs with real short-lived processes.

#include "fake_platform.h"
#include "host_parsing.h"
#include "linux_host_probes.h"
#include "run_tool.h"

#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;
using namespace tellwyn;
using namespace tellwyn::testing;

namespace {

QString fixture(const QString& name) {
    return QStringLiteral(STATS_FIXTURES) + u'/' + name;
}

QString toolOutput(const QString& name) {
    QFile file(fixture(u"tools/"_s + name));
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

struct ToolCall {
    QString path;
    QStringList arguments;
    qint64 limitMs;
};

// Probes of a sample machine; tools answer from the samples by program name.
struct SampleMachine {
    FakeDesktopSession session;
    FakeWindowSystem windows;
    FakePermissionService permissions;
    QHash<QString, QString> tools;
    QList<ToolCall> toolCalls;
    QHash<QString, HostProbes::DiskCapacity> capacities;
    QList<InterfaceCandidate> interfaces;
    std::unique_ptr<LinuxHostProbes> probes;

    explicit SampleMachine(const QString& root) {
        LinuxHostProbes::Sources sources;
        sources.root = root;
        sources.runTool = [this](const QString& path, const QStringList& arguments,
                                 std::chrono::milliseconds limit) {
            toolCalls.append({path, arguments, qint64(limit.count())});
            return tools.value(path.section(u'/', -1));
        };
        sources.capacity = [this](const QString& path) -> std::optional<HostProbes::DiskCapacity> {
            const auto it = capacities.constFind(path);
            return it == capacities.cend() ? std::nullopt : std::optional(*it);
        };
        sources.interfaces = [this] {
            return interfaces;
        };
        sources.uptime = [] {
            return 12.5;
        };
        sources.ownLoginName = u"agent-user"_s;
        sources.ownPid = 4242;
        sources.applicationFolders = {fixture(u"applications"_s)};
        probes = std::make_unique<LinuxHostProbes>(session, windows, permissions, sources);
    }
};

InterfaceCandidate up(const QString& name, const QString& address) {
    return {name, true, true, false, address};
}

} // namespace

class TestHostProbes : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void laptopFiguresComeFromItsFiles() {
        SampleMachine laptop(fixture(u"laptop"_s));
        HostProbes& p = *laptop.probes;
        QCOMPARE(p.physicalMemory(), 16106068ull * 1024);
        QCOMPARE(p.freeMemory(), (5862312ull + 3140852ull) * 1024);
        QCOMPARE(p.cpuTicks(), std::optional<CpuTicks>(CpuTicks{4705, 584 + 277, 3699176 + 23060, 356}));
        QCOMPARE(p.osVersion(), u"Debian GNU/Linux 12 (bookworm)"_s);
        QCOMPARE(p.model(), u"ThinkPad X1 Carbon Gen 9"_s);
        QCOMPARE(p.serialNumber(), u"PF2ABCDE"_s);
        QCOMPARE(p.hardwareUUID(), u"4c4c4544-0042-3510-8052-b4c04f4d3332"_s);
        // Root on LVM on LUKS; Secure Boot on; AppArmor with a profile loaded.
        QVERIFY(p.diskEncryptionEnabled());
        QVERIFY(p.platformIntegrityEnabled());
        QVERIFY(p.applicationAssessmentEnabled());
        QVERIFY(!p.managementEnrolled());
        QVERIFY(laptop.toolCalls.isEmpty()); // realm is not installed on it
    }

    void serverFiguresFallBackToWhatItHas() {
        SampleMachine server(fixture(u"server"_s));
        HostProbes& p = *server.probes;
        QVERIFY(p.physicalMemory() > 0);
        QCOMPARE(p.osVersion(), u"Linux 6.1.0-18-arm64"_s);
        QCOMPARE(p.model(), u"Raspberry Pi 4 Model B Rev 1.4"_s);
        QCOMPARE(p.serialNumber(), QString()); // root-only or missing: empty text
        QVERIFY(!p.diskEncryptionEnabled());
        QVERIFY(p.platformIntegrityEnabled());     // lockdown in integrity mode
        QVERIFY(p.applicationAssessmentEnabled()); // SELinux enforcing
        QVERIFY(p.managementEnrolled());           // SSSD configured
    }

    void encryptedBtrfsRootIsFoundThroughItsDevice() {
        SampleMachine btrfs(fixture(u"btrfs"_s));
        QVERIFY(btrfs.probes->diskEncryptionEnabled());
        // The root is a subvolume; a second subvolume of the same file system is not listed again.
        btrfs.capacities.insert(u"/"_s, {100, 50});
        btrfs.capacities.insert(u"/home"_s, {100, 50});
        const QList<HLVPDiskVolumeInfo> volumes = btrfs.probes->volumes();
        QCOMPARE(volumes.size(), 1);
        QCOMPARE(volumes.first().path, u"/"_s);
        QCOMPARE(volumes.first().name, u"/"_s);
    }

    void nothingReadableGivesZerosAndFalse() {
        QTemporaryDir empty;
        SampleMachine nothing(empty.path());
        HostProbes& p = *nothing.probes;
        QCOMPARE(p.physicalMemory(), 0u);
        QCOMPARE(p.freeMemory(), 0u);
        QCOMPARE(p.cpuTicks(), std::nullopt);
        QCOMPARE(p.osVersion(), u"Linux"_s);
        QCOMPARE(p.rootDiskCapacity().totalBytes, 0u);
        QVERIFY(!p.diskEncryptionEnabled() && !p.platformIntegrityEnabled() &&
                !p.applicationAssessmentEnabled() && !p.managementEnrolled());
        QVERIFY(p.volumes().isEmpty());
        QCOMPARE(p.primaryInterface(), std::nullopt);
        QCOMPARE(p.networkName(std::nullopt), QString());
    }

    // The same answers as the agent core gets: on Wayland the portal's, not what Xwayland allows.
    void permissionFieldsAreThePermissionServicesAnswers() {
        QTemporaryDir empty;
        SampleMachine machine(empty.path());
        QVERIFY(!machine.probes->screenCaptureAuthorized());
        QVERIFY(!machine.probes->accessibilityAuthorized());
        machine.permissions.captureAllowed = true;
        QVERIFY(machine.probes->screenCaptureAuthorized());
        QVERIFY(!machine.probes->accessibilityAuthorized());
        machine.permissions.inputAllowed = true;
        QVERIFY(machine.probes->accessibilityAuthorized());
        QCOMPARE(machine.permissions.screenCaptureRequests, 0); // a record never asks the user
    }

    void theRootIsAVolumeEvenWhereTheMountTableLacksIt() {
        QTemporaryDir chroot; // no mount of "/" in its table
        SampleMachine inside(chroot.path());
        inside.capacities.insert(u"/"_s, {1000, 400});
        const QList<HLVPDiskVolumeInfo> volumes = inside.probes->volumes();
        QCOMPARE(volumes.size(), 1);
        QCOMPARE(volumes.first().path, u"/"_s);
        QCOMPARE(volumes.first().freeBytes, 400u);
    }

    void volumesAreBlockDevicesAndSharesRootFirst() {
        SampleMachine laptop(fixture(u"laptop"_s));
        for (const QString& mountPoint :
             {u"/"_s, u"/boot"_s, u"/boot/efi"_s, u"/srv/shared"_s, u"/snap/core22/864"_s, u"/mnt/archive"_s,
              u"/run"_s, u"/media/alice/USB STICK"_s, u"/media/alice/backup"_s,
              u"/var/lib/docker/overlay2/abc/merged"_s}) {
            laptop.capacities.insert(mountPoint, {1000, 400});
        }
        laptop.capacities.insert(u"/boot/efi"_s, {0, 0}); // reports no size: left out
        const QList<HLVPDiskVolumeInfo> volumes = laptop.probes->volumes();
        QStringList listed;
        for (const HLVPDiskVolumeInfo& volume : volumes) {
            listed.append(volume.name + u'=' + volume.path);
        }
        QCOMPARE(listed,
                 (QStringList{u"Debian=/"_s, u"archive=/mnt/archive"_s, u"backup=/media/alice/backup"_s,
                              u"boot=/boot"_s, u"USB STICK=/media/alice/USB STICK"_s}));
        QCOMPARE(volumes.first().totalBytes, 1000u);
        QCOMPARE(volumes.first().freeBytes, 400u);
    }

    void primaryInterfaceIsTheDefaultRoutesOne() {
        SampleMachine laptop(fixture(u"laptop"_s));
        // The wired default route has the lower metric.
        laptop.interfaces = {{u"lo"_s, true, true, true, u"127.0.0.1"_s},
                             {u"wlp0s20f3"_s, false, true, false, std::nullopt},
                             {u"virbr0"_s, true, false, false, u"192.168.122.1"_s}, // down
                             up(u"docker0"_s, u"172.17.0.1"_s),
                             up(u"wlp0s20f3"_s, u"192.168.0.23"_s),
                             up(u"enp0s31f6"_s, u"192.168.1.40"_s)};
        QCOMPARE(laptop.probes->primaryInterface(),
                 std::optional(InterfaceAddress{u"enp0s31f6"_s, u"192.168.1.40"_s}));
        laptop.interfaces.removeLast(); // cable out: the first usable one in list order
        QCOMPARE(laptop.probes->primaryInterface(),
                 std::optional(InterfaceAddress{u"docker0"_s, u"172.17.0.1"_s}));
    }

    void networkNameFromWifiThenConnectionThenInterface() {
        SampleMachine laptop(fixture(u"laptop"_s));
        HostProbes& p = *laptop.probes;
        const InterfaceAddress wifi{u"wlp0s20f3"_s, u"192.168.0.23"_s};
        const InterfaceAddress wired{u"enp0s31f6"_s, u"192.168.1.40"_s};
        laptop.session.wireless.insert(wifi.name, u"Home Network"_s);
        QCOMPARE(p.networkName(wifi), u"Home Network"_s);
        QVERIFY(laptop.toolCalls.isEmpty());

        // Without NetworkManager: iw on the wireless link.
        laptop.session.wireless.clear();
        laptop.tools.insert(u"iw"_s, toolOutput(u"iw-link.txt"_s));
        QCOMPARE(p.networkName(wifi), u"Café Guest"_s);
        QCOMPARE(laptop.toolCalls.last().arguments, (QStringList{u"dev"_s, u"wlp0s20f3"_s, u"link"_s}));
        QCOMPARE(laptop.toolCalls.last().limitMs, 5000);

        laptop.tools.insert(u"iw"_s, toolOutput(u"iw-not-connected.txt"_s));
        laptop.session.connections.insert(wifi.name, u"Office VPN"_s);
        QCOMPARE(p.networkName(wifi), u"Office VPN"_s);
        // A wired link is never asked with iw.
        const qsizetype calls = laptop.toolCalls.size();
        QCOMPARE(p.networkName(wired), u"enp0s31f6"_s);
        QCOMPARE(laptop.toolCalls.size(), calls);
    }

    void sessionAndWindowFigures() {
        SampleMachine laptop(fixture(u"laptop"_s));
        HostProbes& p = *laptop.probes;
        QCOMPARE(p.loggedInUser(), u"agent-user"_s); // nobody on the seat
        laptop.session.seatUser = DesktopSession::SeatUser{u"lightdm"_s, true};
        QCOMPARE(p.loggedInUser(), u"agent-user"_s); // the login screen counts as nobody
        laptop.session.seatUser = DesktopSession::SeatUser{u"alice"_s, false};
        QCOMPARE(p.loggedInUser(), u"alice"_s);

        QCOMPARE(p.displays().count, 0u);
        QCOMPARE(p.displays().mainResolution, QString());
        laptop.windows.screenInfo = {2, 2560, 1440};
        QCOMPARE(p.displays().mainResolution, u"2560 x 1440"_s);
        laptop.windows.screenInfo = {1, 1920, 0};
        QCOMPARE(p.displays().mainResolution, QString());
        QCOMPARE(p.uptimeSeconds(), 12.5);
    }

    void activeApplicationSkipsTheAgentItself() {
        SampleMachine laptop(fixture(u"laptop"_s));
        HostProbes& p = *laptop.probes;
        QCOMPARE(p.activeApplicationName(), std::nullopt);
        // Processes that are gone are named by their window class, or by their desktop entry.
        laptop.windows.owners = {{4242, u"Tellwyn"_s, true},            // the agent's own window
                                 {999999901, u"TellwynAgent"_s, false}, // another copy, by name
                                 {999999902, u"HalvoServer"_s, false},
                                 {999999903, u"firefox-esr"_s, false},
                                 {999999904, u"XTerm"_s, false}};
        QCOMPARE(p.activeApplicationName(), std::optional<QString>(u"Firefox ESR"_s));
        laptop.windows.owners.removeAt(3);
        QCOMPARE(p.activeApplicationName(), std::optional<QString>(u"XTerm"_s));
        // A program whose name is longer than the kernel's 15-character process name, with a
        // desktop entry named in reverse-DNS style: found by the program that the entry starts.
        laptop.windows.owners = {{31337, u"Gnome-text-editor"_s, true}};
        QCOMPARE(p.activeApplicationName(), std::optional<QString>(u"Text Editor"_s));
    }

    void powerLogLineSearchesThisBootsJournal() {
        SampleMachine laptop(fixture(u"laptop"_s));
        laptop.tools.insert(u"journalctl"_s, toolOutput(u"journalctl-sleep.txt"_s));
        // Lines of other programs that mention sleeping or waking (logind, NetworkManager) and
        // the agent's own log never count: only the system's suspend and resume records.
        QCOMPARE(
            laptop.probes->powerLogLine(u"Sleep"_s),
            u"2026-11-23T08:02:12+0100 laptop systemd-sleep[40211]: Entering sleep state 'suspend'..."_s);
        QCOMPARE(laptop.toolCalls.last().path, u"/usr/bin/journalctl"_s);
        QVERIFY(laptop.toolCalls.last().arguments.contains(u"-b"_s));
        QCOMPARE(laptop.toolCalls.last().limitMs, 3000);
        QCOMPARE(
            laptop.probes->powerLogLine(u"Wake"_s),
            u"2026-11-23T09:14:41+0100 laptop systemd-sleep[40211]: System returned from sleep state."_s);
    }

    void enrolmentThroughRealm() {
        QTemporaryDir root;
        QVERIFY(QDir(root.path()).mkpath(u"usr/sbin"_s));
        QFile realm(root.filePath(u"usr/sbin/realm"_s));
        QVERIFY(realm.open(QIODevice::WriteOnly));
        realm.close();
        SampleMachine joined(root.path());
        QVERIFY(!joined.probes->managementEnrolled()); // realm lists nothing
        joined.tools.insert(u"realm"_s, toolOutput(u"realm-list.txt"_s));
        QVERIFY(joined.probes->managementEnrolled());
        QCOMPARE(joined.toolCalls.last().arguments, (QStringList{u"list"_s, u"--name-only"_s}));
    }

    void logLineCut_data() {
        QTest::addColumn<QString>("line");
        QTest::addColumn<QString>("expected");
        const QString x120 = u"Wake "_s + QString(115, u'x');
        QTest::newRow("120 kept") << x120 << x120;
        QTest::newRow("121 cut") << x120 + u'y' << x120.left(117) + u"..."_s;
        // Each "é" written as e and a combining accent is one character of two code units.
        const QString accents = u"Wake "_s + QString(u"e\u0301"_s).repeated(116);
        QTest::newRow("counted as characters") << accents << accents.left(5 + 2 * 112) + u"..."_s;
        const QString flags = u"Wake "_s + QString(u"\U0001F1E9\U0001F1EA"_s).repeated(115);
        QTest::newRow("flags kept whole") << flags << flags;
        QTest::newRow("trimmed") << u"  \tsleep and WAKE  "_s << u"sleep and WAKE"_s;
    }
    void logLineCut() {
        QFETCH(QString, line);
        QFETCH(QString, expected);
        QCOMPARE(latestLogLine(u"first wake\n"_s + line + u"\n\nno match\n"_s, {u"Wake"_s}), expected);
    }

    void volumeOrder() {
        QLocale::setDefault(QLocale(QLocale::English));
        QList<HLVPDiskVolumeInfo> volumes{{u"backup"_s, u"/media/backup"_s, 1, 1},
                                          {u"Archive"_s, u"/mnt/archive"_s, 1, 1},
                                          {u"Zeta"_s, u"/"_s, 1, 1},
                                          {u"äpfel"_s, u"/media/apfel"_s, 1, 1}};
        sortVolumes(volumes);
        QStringList names;
        for (const auto& volume : volumes) {
            names.append(volume.name);
        }
        QCOMPARE(names, (QStringList{u"Zeta"_s, u"äpfel"_s, u"Archive"_s, u"backup"_s}));
        QCOMPARE(volumeName(u"  \n"_s, u"/media/alice/USB STICK"_s), u"USB STICK"_s);
        QCOMPARE(volumeName(QString(), u"/"_s), u"/"_s);
    }

    void runToolReturnsStandardOutputOnly() {
        const quint64 startedBefore = toolRunsStarted();
        QCOMPARE(runTool(u"/bin/sh"_s, {u"-c"_s, u"printf 'caf\\303\\251\\n'; echo noise >&2; exit 3"_s}, 5s),
                 u"café\n"_s);
        QCOMPARE(runTool(u"/bin/sh"_s, {u"-c"_s, u"printf '\\377\\376'"_s}, 5s), QString()); // not UTF-8
        QCOMPARE(runTool(u"/nonexistent/tool"_s, {}, 5s), QString());
        // Output larger than a default pipe still arrives whole.
        QCOMPARE(runTool(u"/bin/sh"_s, {u"-c"_s, u"head -c 200000 /dev/zero | tr '\\0' a"_s}, 5s).size(),
                 200000);
        QCOMPARE(toolRunsStarted(), startedBefore + 3); // the missing one never started
    }

    void runToolStopsAToolAtItsLimit() {
        QElapsedTimer elapsed;
        elapsed.start();
        QCOMPARE(runTool(u"/bin/sh"_s, {u"-c"_s, u"echo early; exec sleep 30"_s}, 200ms), QString());
        QVERIFY2(elapsed.elapsed() < 5000, "the tool was not stopped at its limit");
        // One that ignores SIGTERM is waited for one more second at most.
        elapsed.restart();
        QCOMPARE(
            runTool(u"/bin/sh"_s, {u"-c"_s, u"trap '' TERM; echo early; while :; do sleep 1; done"_s}, 200ms),
            QString());
        QVERIFY2(elapsed.elapsed() < 5000, "the tool was waited for beyond the extra second");
    }
};

QTEST_GUILESS_MAIN(TestHostProbes)
#include "tst_host_probes.moc"
