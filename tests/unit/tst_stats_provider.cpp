// The statistics snapshot: what each field holds, in which order the figures are read, the
// caches (once-only texts, security results kept 300 s on the virtual clock), the CPU delta,
// the active process and the sleep and wake causes.

#include "event_wait.h"
#include "host_probes.h"
#include "system_stats_provider.h"
#include "virtual_time.h"

#include <QMutex>
#include <QPointer>
#include <QSignalSpy>
#include <QTest>
#include <QThread>
#include <memory>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;
using namespace tellwyn;
using namespace tellwyn::testing;

namespace {

// Stands in for the system's sleep and wake announcements.
class SleepSource : public QObject {
    Q_OBJECT
public:
    using QObject::QObject;
Q_SIGNALS:
    void fired(bool goingToSleep);
};

// Records every call with the thread it ran on; answers what the test sets.
class FakeHostProbes final : public HostProbes {
public:
    std::optional<QString> activeApplicationName() override {
        note(u"activeApplicationName"_s);
        return activeApplication;
    }
    void observeSleepAndWake(QObject* context, std::function<void(bool)> handler) override {
        note(u"observeSleepAndWake"_s);
        QObject::connect(&sleepSource, &SleepSource::fired, context, std::move(handler));
    }
    QString powerLogLine(const QString& word) override {
        note(u"powerLogLine "_s + word);
        QMutexLocker locker(&m_lock);
        return powerLog.value(word);
    }
    quint64 physicalMemory() override { return note(u"physicalMemory"_s), 16ull << 30; }
    quint64 freeMemory() override { return note(u"freeMemory"_s), 5ull << 30; }
    DiskCapacity rootDiskCapacity() override { return note(u"rootDiskCapacity"_s), DiskCapacity{500, 200}; }
    std::optional<CpuTicks> cpuTicks() override {
        note(u"cpuTicks"_s);
        QMutexLocker locker(&m_lock);
        return ticks;
    }
    QString osVersion() override { return note(u"osVersion"_s), u"Debian GNU/Linux 12 (bookworm)"_s; }
    QString model() override { return note(u"model"_s), u"ThinkPad X1 Carbon Gen 9"_s; }
    double uptimeSeconds() override { return note(u"uptimeSeconds"_s), uptime; }
    bool screenCaptureAuthorized() override { return note(u"screenCaptureAuthorized"_s), true; }
    bool accessibilityAuthorized() override { return note(u"accessibilityAuthorized"_s), false; }
    std::optional<bool> screenLocked() override { return note(u"screenLocked"_s), locked; }
    std::optional<InterfaceAddress> primaryInterface() override {
        return note(u"primaryInterface"_s), primary;
    }
    QString loggedInUser() override { return note(u"loggedInUser"_s), u"alice"_s; }
    QString networkName(const std::optional<InterfaceAddress>& chosen) override {
        note(u"networkName"_s);
        return chosen ? u"Home "_s + chosen->name : QString();
    }
    Displays displays() override { return note(u"displays"_s), Displays{2, u"2560 x 1440"_s}; }
    QString serialNumber() override { return note(u"serialNumber"_s), serial; }
    QString hardwareUUID() override { return note(u"hardwareUUID"_s), u"4C4C4544-0042"_s; }
    bool diskEncryptionEnabled() override { return note(u"diskEncryptionEnabled"_s), security; }
    bool platformIntegrityEnabled() override { return note(u"platformIntegrityEnabled"_s), security; }
    bool applicationAssessmentEnabled() override { return note(u"applicationAssessmentEnabled"_s), security; }
    bool managementEnrolled() override { return note(u"managementEnrolled"_s), security; }
    QList<HLVPDiskVolumeInfo> volumes() override {
        note(u"volumes"_s);
        return {{u"Debian"_s, u"/"_s, 500, 200}};
    }

    QStringList calls() const {
        QMutexLocker locker(&m_lock);
        return m_calls;
    }
    int count(const QString& call) const { return int(calls().count(call)); }
    QThread* threadOf(const QString& call) const {
        QMutexLocker locker(&m_lock);
        return m_threads.value(call);
    }
    void clearCalls() {
        QMutexLocker locker(&m_lock);
        m_calls.clear();
    }
    void setPowerLog(const QString& word, const QString& line) {
        QMutexLocker locker(&m_lock);
        powerLog.insert(word, line);
    }
    void setTicks(std::optional<CpuTicks> value) {
        QMutexLocker locker(&m_lock);
        ticks = value;
    }

    SleepSource sleepSource;

    std::optional<QString> activeApplication;
    std::optional<CpuTicks> ticks;
    std::optional<bool> locked;
    std::optional<InterfaceAddress> primary = InterfaceAddress{u"wlp0s20f3"_s, u"192.168.0.23"_s};
    QString serial = u"PF2ABCDE"_s;
    double uptime = 3725.9;
    bool security = true;
    QHash<QString, QString> powerLog;

private:
    int note(const QString& call) {
        QMutexLocker locker(&m_lock);
        m_calls.append(call);
        m_threads.insert(call, QThread::currentThread());
        return 0;
    }
    mutable QMutex m_lock;
    QStringList m_calls;
    QHash<QString, QThread*> m_threads;
};

} // namespace

class TestStatsProvider : public QObject {
    Q_OBJECT

    std::unique_ptr<VirtualTime> time;
    std::unique_ptr<FakeHostProbes> probes;
    std::unique_ptr<SystemStatsProvider> provider;

    SystemStatsMessage snapshot() {
        std::optional<SystemStatsMessage> result;
        QObject context;
        provider->makeSnapshot(&context, [&](SystemStatsMessage s) { result = std::move(s); });
        [&] {
            TRY_VERIFY(result.has_value());
        }();
        return result.value_or(SystemStatsMessage{});
    }

private Q_SLOTS:
    void init() {
        time = std::make_unique<VirtualTime>();
        probes = std::make_unique<FakeHostProbes>();
        provider = std::make_unique<SystemStatsProvider>(*probes, *time);
    }
    void cleanup() {
        provider.reset();
        probes.reset();
        time.reset();
    }

    void everyFieldIsFilledFromItsProbe() {
        probes->activeApplication = u"Firefox"_s;
        const SystemStatsMessage s = snapshot();
        QCOMPARE(s.totalMemory, 16ull << 30);
        QCOMPARE(s.freeMemory, 5ull << 30);
        QCOMPARE(s.totalDiskSpace, 500u);
        QCOMPARE(s.freeDiskSpace, 200u);
        QCOMPARE(s.osVersion, u"Debian GNU/Linux 12 (bookworm)"_s);
        QCOMPARE(s.macModel, u"ThinkPad X1 Carbon Gen 9"_s);
        QCOMPARE(s.activeProcess, u"Firefox"_s);
        QCOMPARE(s.uptimeSeconds, std::optional<quint64>(3725)); // truncated, not rounded
        QCOMPARE(s.agentVersion, std::optional<QString>(u"%1 (%2)"_s.arg(
                                     QStringLiteral(TELLWYN_VERSION), QStringLiteral(TELLWYN_BUILD_NUMBER))));
        QCOMPARE(s.screenCaptureAuthorized, std::optional<bool>(true));
        QCOMPARE(s.accessibilityAuthorized, std::optional<bool>(false));
        QCOMPARE(s.screenLocked, std::nullopt);
        QCOMPARE(s.primaryIPAddress, std::optional<QString>(u"192.168.0.23"_s));
        QCOMPARE(s.loggedInUser, std::optional<QString>(u"alice"_s));
        QCOMPARE(s.networkName, std::optional<QString>(u"Home wlp0s20f3"_s));
        QCOMPARE(s.displayCount, std::optional<quint32>(2));
        QCOMPARE(s.mainDisplayResolution, std::optional<QString>(u"2560 x 1440"_s));
        QCOMPARE(s.serialNumber, std::optional<QString>(u"PF2ABCDE"_s));
        QCOMPARE(s.hardwareUUID, std::optional<QString>(u"4C4C4544-0042"_s));
        // The four security figures are checked with their cache below.
        QCOMPARE(s.lastBootTime, std::optional<QDateTime>(time->now().addMSecs(-3725900)));
        QCOMPARE(s.lastSleepCause, std::optional<QString>(QString()));
        QCOMPARE(s.lastWakeCause, std::optional<QString>(QString()));
        QCOMPARE(s.diskVolumes->size(), 1);
        QCOMPARE(s.sequenceNumber, std::nullopt);

        // The application in front is read on the main thread, the rest on the statistics queue.
        QCOMPARE(probes->threadOf(u"activeApplicationName"_s), QThread::currentThread());
        QThread* queue = probes->threadOf(u"physicalMemory"_s);
        QVERIFY(queue != QThread::currentThread());
        QCOMPARE(queue->objectName(), u"org.tellwyn.agent.system-stats"_s);
        QCOMPARE(probes->threadOf(u"volumes"_s), queue);
    }

    void missingFiguresAreEmptyTextNotAbsent() {
        probes->primary.reset();
        probes->locked = true;
        const SystemStatsMessage s = snapshot();
        QCOMPARE(s.primaryIPAddress, std::optional<QString>(QString()));
        QCOMPARE(s.networkName, std::optional<QString>(QString()));
        QCOMPARE(s.screenLocked, std::optional<bool>(true));
    }

    void onceOnlyTextsAreNeverRecomputedEvenWhenEmpty() {
        probes->serial.clear();
        snapshot();
        time->advance(3600s);
        probes->serial = u"LATER"_s;
        const SystemStatsMessage s = snapshot();
        QCOMPARE(s.serialNumber, std::optional<QString>(QString()));
        for (const QString& call : {u"osVersion"_s, u"model"_s, u"serialNumber"_s, u"hardwareUUID"_s}) {
            QCOMPARE(probes->count(call), 1);
        }
    }

    void securityResultsAreKeptForThreeHundredSeconds() {
        const QStringList probesRun{u"diskEncryptionEnabled"_s, u"platformIntegrityEnabled"_s,
                                    u"applicationAssessmentEnabled"_s, u"managementEnrolled"_s};
        probes->security = false; // a failed probe: false, kept just as long
        QCOMPARE(snapshot().mdmEnrolled, std::optional<bool>(false));
        probes->security = true;
        time->advance(299s);
        const SystemStatsMessage cached = snapshot();
        QCOMPARE(cached.fileVaultEnabled, std::optional<bool>(false));
        QCOMPARE(cached.mdmEnrolled, std::optional<bool>(false));
        for (const QString& call : probesRun) {
            QCOMPARE(probes->count(call), 1);
        }
        time->advance(1s);
        const SystemStatsMessage refreshed = snapshot();
        QCOMPARE(refreshed.fileVaultEnabled, std::optional<bool>(true));
        QCOMPARE(refreshed.sipEnabled, std::optional<bool>(true));
        QCOMPARE(refreshed.gatekeeperEnabled, std::optional<bool>(true));
        QCOMPARE(refreshed.mdmEnrolled, std::optional<bool>(true));
        for (const QString& call : probesRun) {
            QCOMPARE(probes->count(call), 2);
        }
        // The new record is dated by the refresh.
        time->advance(299s);
        snapshot();
        QCOMPARE(probes->count(u"managementEnrolled"_s), 2);
    }

    void cpuUsageIsTheBusyFractionSinceThePreviousSnapshot() {
        probes->setTicks(CpuTicks{100, 50, 1000, 10});
        QCOMPARE(snapshot().cpuUsage, 0.0); // nothing to compare with yet
        probes->setTicks(CpuTicks{130, 60, 1050, 20});
        QCOMPARE(snapshot().cpuUsage, 50.0 / 100.0);
        QCOMPARE(snapshot().cpuUsage, 0.0); // no tick counted in between
        probes->setTicks(std::nullopt);
        QCOMPARE(snapshot().cpuUsage, 0.0); // unreadable: the previous reading stays
        probes->setTicks(CpuTicks{160, 60, 1140, 20});
        QCOMPARE(snapshot().cpuUsage, 30.0 / 120.0);
        probes->setTicks(CpuTicks{10, 60, 1200, 20});
        QCOMPARE(snapshot().cpuUsage, 0.0); // a counter went back
        probes->setTicks(CpuTicks{20, 60, 1230, 20});
        QCOMPARE(snapshot().cpuUsage, 10.0 / 40.0); // measured from the reading after it
    }

    void activeProcessFallsBackToTheLastNameFound() {
        QCOMPARE(snapshot().activeProcess, u"System"_s);
        probes->activeApplication = u"Terminal"_s;
        QCOMPARE(snapshot().activeProcess, u"Terminal"_s);
        probes->activeApplication.reset();
        QCOMPARE(snapshot().activeProcess, u"Terminal"_s);
    }

    void sleepAndWakeCausesComeFromTheLogAndTheNotifications() {
        probes->setPowerLog(u"Sleep"_s, u"systemd-sleep: Entering sleep state 'suspend'..."_s);
        probes->setPowerLog(u"Wake"_s, u"kernel: PM: wakeup from lid switch"_s);
        // Read in the background at the first snapshot, so a later one carries them.
        TRY_COMPARE(snapshot().lastSleepCause,
                    std::optional<QString>(u"systemd-sleep: Entering sleep state 'suspend'..."_s));
        QCOMPARE(snapshot().lastWakeCause, std::optional<QString>(u"kernel: PM: wakeup from lid switch"_s));
        QCOMPARE(probes->count(u"observeSleepAndWake"_s), 1);

        Q_EMIT probes->sleepSource.fired(true);
        QCOMPARE(snapshot().lastSleepCause, std::optional<QString>(u"Sleep requested"_s));

        // "Wake" at once, replaced by the log's line once it has been read.
        probes->setPowerLog(u"Wake"_s, QString());
        Q_EMIT probes->sleepSource.fired(false);
        QCOMPARE(snapshot().lastWakeCause, std::optional<QString>(u"Wake"_s));
        probes->setPowerLog(u"Wake"_s, u"kernel: PM: second wakeup"_s);
        Q_EMIT probes->sleepSource.fired(false);
        TRY_COMPARE(snapshot().lastWakeCause, std::optional<QString>(u"kernel: PM: second wakeup"_s));
        QCOMPARE(probes->count(u"powerLogLine Sleep"_s), 1);
    }

    void nothingIsHandedBackOnceTheCallerIsGone() {
        bool called = false;
        auto context = std::make_unique<QObject>();
        provider->makeSnapshot(context.get(), [&](SystemStatsMessage) { called = true; });
        context.reset();
        snapshot(); // the first snapshot has been handed back (or dropped) before this one
        QVERIFY(!called);
    }
};

QTEST_GUILESS_MAIN(TestStatsProvider)
#include "tst_stats_provider.moc"
