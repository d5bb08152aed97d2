#include "host_parsing.h"

#include <QCollator>
#include <QTextBoundaryFinder>
#include <algorithm>

using namespace Qt::StringLiterals;

namespace tellwyn {

namespace {

constexpr qsizetype longestLogLine = 120;
constexpr qsizetype cutLogLine = 117;

// Kernel and memory file systems, and read-only images, which are not volumes a user keeps data on.
bool isPseudoFileSystem(const QString& type) {
    static const QStringList pseudo{u"proc"_s,       u"sysfs"_s,    u"tmpfs"_s,       u"devtmpfs"_s,
                                    u"devpts"_s,     u"overlay"_s,  u"cgroup"_s,      u"cgroup2"_s,
                                    u"securityfs"_s, u"debugfs"_s,  u"tracefs"_s,     u"configfs"_s,
                                    u"fusectl"_s,    u"mqueue"_s,   u"hugetlbfs"_s,   u"pstore"_s,
                                    u"bpf"_s,        u"efivarfs"_s, u"autofs"_s,      u"binfmt_misc"_s,
                                    u"ramfs"_s,      u"squashfs"_s, u"nsfs"_s,        u"rpc_pipefs"_s,
                                    u"selinuxfs"_s,  u"iso9660"_s,  u"fuse.portal"_s, u"fuse.gvfsd-fuse"_s};
    return pseudo.contains(type);
}

bool isNetworkFileSystem(const QString& type) {
    static const QStringList network{
        u"nfs"_s, u"nfs4"_s,       u"cifs"_s,           u"smb3"_s,      u"smbfs"_s, u"ceph"_s,       u"9p"_s,
        u"afs"_s, u"fuse.sshfs"_s, u"fuse.glusterfs"_s, u"glusterfs"_s, u"davfs"_s, u"fuse.rclone"_s};
    return network.contains(type);
}

QString decodeMountField(const QByteArray& field) {
    QByteArray decoded;
    decoded.reserve(field.size());
    for (qsizetype i = 0; i < field.size(); ++i) {
        if (field[i] == '\\' && i + 3 < field.size()) {
            bool ok = false;
            const int value = field.mid(i + 1, 3).toInt(&ok, 8);
            if (ok && value < 256) {
                decoded.append(static_cast<char>(value));
                i += 3;
                continue;
            }
        }
        decoded.append(field[i]);
    }
    return QString::fromUtf8(decoded);
}

} // namespace

QString agentVersionText(const QString& shortVersion, const QString& buildNumber) {
    if (shortVersion.isEmpty()) {
        return u"Unknown"_s;
    }
    if (buildNumber.isEmpty()) {
        return shortVersion;
    }
    return shortVersion + u" ("_s + buildNumber + u')';
}

QHash<QByteArray, quint64> parseMemInfo(const QByteArray& text) {
    QHash<QByteArray, quint64> values;
    for (const QByteArray& line : text.split('\n')) {
        const qsizetype colon = line.indexOf(':');
        if (colon <= 0) {
            continue;
        }
        const QList<QByteArray> parts = line.mid(colon + 1).simplified().split(' ');
        bool ok = false;
        const quint64 number = parts.value(0).toULongLong(&ok);
        if (!ok) {
            continue;
        }
        const bool kib = parts.value(1) == "kB";
        values.insert(line.left(colon), kib ? number * 1024 : number);
    }
    return values;
}

std::optional<CpuTicks> parseCpuTicks(const QByteArray& procStat) {
    for (const QByteArray& line : procStat.split('\n')) {
        const QList<QByteArray> fields = line.simplified().split(' ');
        if (fields.value(0) != "cpu") {
            continue;
        }
        if (fields.size() < 5) {
            return std::nullopt;
        }
        // Order on the line: user nice system idle iowait irq softirq steal (older kernels stop
        // after idle). Counted as top does: waiting for I/O is idle time; interrupts and time
        // taken by the hypervisor are busy time.
        quint64 values[8] = {};
        for (qsizetype i = 0; i < 8 && i + 1 < fields.size(); ++i) {
            bool ok = false;
            values[i] = fields[i + 1].toULongLong(&ok);
            if (!ok) {
                return std::nullopt;
            }
        }
        const quint64 interruptsAndSteal = values[5] + values[6] + values[7];
        return CpuTicks{values[0], values[2] + interruptsAndSteal, values[3] + values[4], values[1]};
    }
    return std::nullopt;
}

double cpuBusyFraction(const CpuTicks& previous, const CpuTicks& current) {
    if (current.user < previous.user || current.system < previous.system || current.idle < previous.idle ||
        current.nice < previous.nice) {
        return 0.0;
    }
    const double busy = double(current.user - previous.user) + double(current.system - previous.system) +
                        double(current.nice - previous.nice);
    const double total = busy + double(current.idle - previous.idle);
    return total == 0.0 ? 0.0 : busy / total;
}

QString osReleasePrettyName(const QByteArray& osRelease) {
    for (const QByteArray& raw : osRelease.split('\n')) {
        const QByteArray line = raw.trimmed();
        if (!line.startsWith("PRETTY_NAME=")) {
            continue;
        }
        QByteArray value = line.mid(12);
        if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') &&
            value.back() == value.front()) {
            value = value.mid(1, value.size() - 2);
        }
        return QString::fromUtf8(value.replace("\\\"", "\"").replace("\\\\", "\\")).trimmed();
    }
    return {};
}

QString latestLogLine(const QString& output, const QStringList& markers) {
    const QStringList lines = output.split(u'\n', Qt::SkipEmptyParts);
    for (auto it = lines.crbegin(); it != lines.crend(); ++it) {
        const bool marked = std::any_of(markers.cbegin(), markers.cend(), [&](const QString& marker) {
            return it->contains(marker, Qt::CaseInsensitive);
        });
        if (!marked) {
            continue;
        }
        const QString line = it->trimmed();
        QTextBoundaryFinder graphemes(QTextBoundaryFinder::Grapheme, line);
        qsizetype count = 0;
        qsizetype cutAt = -1;
        while (graphemes.toNextBoundary() >= 0) {
            ++count;
            if (count == cutLogLine) {
                cutAt = graphemes.position();
            }
            if (count > longestLogLine) {
                return line.left(cutAt) + u"..."_s;
            }
        }
        return line;
    }
    return {};
}

QString defaultRouteInterface(const QByteArray& procNetRoute) {
    QString best;
    quint64 bestMetric = 0;
    const QList<QByteArray> lines = procNetRoute.split('\n');
    for (qsizetype i = 1; i < lines.size(); ++i) {
        const QList<QByteArray> fields = lines[i].simplified().split(' ');
        if (fields.size() < 8) {
            continue;
        }
        bool ok = false;
        const quint64 flags = fields[3].toULongLong(&ok, 16);
        const bool up = ok && (flags & 0x1) != 0;
        const quint64 metric = fields[6].toULongLong();
        if (fields[1] == "00000000" && fields[7] == "00000000" && up &&
            (best.isEmpty() || metric < bestMetric)) {
            best = QString::fromUtf8(fields[0]);
            bestMetric = metric;
        }
    }
    return best;
}

std::optional<InterfaceAddress> choosePrimaryInterface(const QList<InterfaceCandidate>& candidates,
                                                       const QStringList& preferredNames) {
    std::optional<InterfaceAddress> first;
    for (const InterfaceCandidate& candidate : candidates) {
        if (!candidate.isIPv4 || !candidate.isUp || candidate.isLoopback || !candidate.address) {
            continue;
        }
        if (preferredNames.contains(candidate.name)) {
            return InterfaceAddress{candidate.name, *candidate.address};
        }
        if (!first) {
            first = InterfaceAddress{candidate.name, *candidate.address};
        }
    }
    return first;
}

QList<MountEntry> parseMountInfo(const QByteArray& text) {
    QList<MountEntry> mounts;
    for (const QByteArray& line : text.split('\n')) {
        const QList<QByteArray> fields = line.split(' ');
        const qsizetype separator = fields.indexOf("-");
        if (separator < 6 || fields.size() < separator + 3) {
            continue;
        }
        mounts.append({decodeMountField(fields[separator + 2]), decodeMountField(fields[4]),
                       decodeMountField(fields[separator + 1]), decodeMountField(fields[3]),
                       QString::fromLatin1(fields[2])});
    }
    return mounts;
}

bool isListedVolume(const MountEntry& mount) {
    if (isPseudoFileSystem(mount.fileSystemType)) {
        return false;
    }
    if (isNetworkFileSystem(mount.fileSystemType)) {
        return true;
    }
    return mount.source.startsWith(u"/dev/"_s);
}

QString volumeName(const QString& label, const QString& mountPoint) {
    const QString trimmed = label.trimmed();
    if (!trimmed.isEmpty()) {
        return trimmed;
    }
    const QString last = mountPoint.section(u'/', -1, -1, QString::SectionSkipEmpty);
    return last.isEmpty() ? mountPoint : last;
}

void sortVolumes(QList<HLVPDiskVolumeInfo>& volumes) {
    QCollator collator; // the current locale
    collator.setCaseSensitivity(Qt::CaseInsensitive);
    std::stable_sort(volumes.begin(), volumes.end(),
                     [&](const HLVPDiskVolumeInfo& a, const HLVPDiskVolumeInfo& b) {
                         const bool aRoot = a.path == u"/"_s;
                         const bool bRoot = b.path == u"/"_s;
                         if (aRoot != bRoot) {
                             return aRoot;
                         }
                         return collator.compare(a.name, b.name) < 0;
                     });
}

bool lockdownIsActive(const QByteArray& lockdown) {
    const qsizetype open = lockdown.indexOf('[');
    const qsizetype close = lockdown.indexOf(']', open);
    if (open < 0 || close < 0) {
        return false;
    }
    return lockdown.mid(open + 1, close - open - 1) != "none";
}

bool secureBootIsOn(const QByteArray& efivar) {
    return efivar.size() >= 5 && efivar.at(4) == 1;
}

bool isReportableApplicationName(const QString& trimmedName) {
    static const QStringList ownNames{u"TellwynAgent"_s, u"HalvoServer"_s, u"tellwyn-agent"_s};
    return !trimmedName.isEmpty() && !ownNames.contains(trimmedName);
}

DesktopEntry parseDesktopEntry(const QByteArray& desktopFile) {
    DesktopEntry entry;
    bool inMainGroup = false;
    for (const QByteArray& raw : desktopFile.split('\n')) {
        const QByteArray line = raw.trimmed();
        if (line.startsWith('[')) {
            inMainGroup = line == "[Desktop Entry]";
        } else if (!inMainGroup) {
            continue;
        } else if (line.startsWith("Name=") && entry.name.isEmpty()) {
            entry.name = QString::fromUtf8(line.mid(5)).trimmed();
        } else if (line.startsWith("StartupWMClass=")) {
            entry.windowClass = QString::fromUtf8(line.mid(15)).trimmed();
        } else if (line.startsWith("Exec=")) {
            // The first word that is not an "env" prefix or one of its variable settings.
            const QStringList words = QString::fromUtf8(line.mid(5)).split(u' ', Qt::SkipEmptyParts);
            for (QString word : words) {
                word.remove(u'"');
                if (word == u"env"_s || word.endsWith(u"/env"_s) || word.contains(u'=')) {
                    continue;
                }
                entry.executableName = word.section(u'/', -1);
                break;
            }
        }
    }
    return entry;
}

} // namespace tellwyn

namespace tellwyn {

QString iwLinkNetworkName(const QString& output) {
    for (const QString& line : output.split(u'\n')) {
        const QString trimmed = line.trimmed();
        if (trimmed.startsWith(u"SSID:"_s)) {
            return trimmed.mid(5).trimmed();
        }
    }
    return {};
}

QString decodeUdevLabel(const QString& entryName) {
    QByteArray decoded;
    const QByteArray raw = entryName.toUtf8();
    for (qsizetype i = 0; i < raw.size(); ++i) {
        if (raw[i] == '\\' && i + 3 < raw.size() && raw[i + 1] == 'x') {
            bool ok = false;
            const int value = raw.mid(i + 2, 2).toInt(&ok, 16);
            if (ok) {
                decoded.append(static_cast<char>(value));
                i += 3;
                continue;
            }
        }
        decoded.append(raw[i]);
    }
    return QString::fromUtf8(decoded);
}

} // namespace tellwyn
