#include "system_stats_provider.h"

#include <QFile>
#include <QHash>
#include <QMetaObject>
#include <QObject>
#include <QPointer>

#include <sys/statvfs.h>

using namespace Qt::StringLiterals;

namespace tellwyn {

namespace {

// Values of /proc/meminfo are in kibibytes.
QHash<QByteArray, quint64> readMemInfo() {
    QHash<QByteArray, quint64> values;
    QFile file(u"/proc/meminfo"_s);
    if (!file.open(QIODevice::ReadOnly)) {
        return values;
    }
    for (const QByteArray& line : file.readAll().split('\n')) {
        const qsizetype colon = line.indexOf(':');
        if (colon <= 0) {
            continue;
        }
        bool ok = false;
        const quint64 kib = line.mid(colon + 1).trimmed().split(' ').value(0).toULongLong(&ok);
        if (ok) {
            values.insert(line.left(colon), kib * 1024);
        }
    }
    return values;
}

std::optional<double> readUptimeSeconds() {
    QFile file(u"/proc/uptime"_s);
    if (!file.open(QIODevice::ReadOnly)) {
        return std::nullopt;
    }
    bool ok = false;
    const double seconds = file.readAll().split(' ').value(0).toDouble(&ok);
    return ok ? std::optional<double>(seconds) : std::nullopt;
}

} // namespace

SystemStatsProvider& SystemStatsProvider::shared() {
    static SystemStatsProvider instance;
    return instance;
}

SystemStatsMessage readBasicSystemStats() {
    SystemStatsMessage stats;
    const auto memory = readMemInfo();
    stats.totalMemory = memory.value("MemTotal");
    stats.freeMemory = memory.contains("MemFree") ? memory.value("MemFree") + memory.value("Inactive") : 0;

    struct statvfs root {};
    if (::statvfs("/", &root) == 0) {
        stats.totalDiskSpace = quint64(root.f_blocks) * root.f_frsize;
        stats.freeDiskSpace = quint64(root.f_bavail) * root.f_frsize;
    }

    const double uptime = readUptimeSeconds().value_or(0.0);
    stats.uptimeSeconds = quint64(uptime);
    stats.lastBootTime = QDateTime::currentDateTimeUtc().addMSecs(-qint64(uptime * 1000.0));
    stats.agentVersion = QString::fromLatin1(TELLWYN_VERSION);
    return stats;
}

void SystemStatsProvider::makeSnapshot(QObject* context, SnapshotHandler done) {
    QMetaObject::invokeMethod(
        context, [done = std::move(done)] { done(readBasicSystemStats()); }, Qt::QueuedConnection);
}

} // namespace tellwyn
