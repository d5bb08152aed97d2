#include "message_text.h"

#include "hlvp_codec.h"
#include "server_log_manager.h"

#include <QCborMap>
#include <QCborValue>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocale>

using namespace Qt::StringLiterals;

namespace tellwyn {

namespace {

QString bytesText(quint64 bytes) {
    return QLocale::c().formattedDataSize(qint64(std::min<quint64>(bytes, INT64_MAX)), 1,
                                          QLocale::DataSizeIecFormat);
}

template <typename T> QString optionalText(const std::optional<T>& value) {
    if (!value) {
        return u"(absent)"_s;
    }
    if constexpr (std::is_same_v<T, bool>) {
        return *value ? u"yes"_s : u"no"_s;
    } else if constexpr (std::is_same_v<T, QString>) {
        return *value;
    } else if constexpr (std::is_same_v<T, QDateTime>) {
        return value->toUTC().toString(Qt::ISODate);
    } else {
        return QString::number(*value);
    }
}

} // namespace

namespace {

QString gibText(quint64 bytes) {
    return u"%1 GiB"_s.arg(double(bytes) / double(1ull << 30), 0, 'f', 1);
}

QString yesNo(const std::optional<bool>& value) {
    return !value ? u"unknown"_s : *value ? u"yes"_s : u"no"_s;
}

QString textOrNone(const std::optional<QString>& value) {
    return !value ? u"unknown"_s : value->isEmpty() ? u"(none)"_s : *value;
}

QString plural(quint64 count, const QString& unit) {
    return u"%1 %2%3"_s.arg(count).arg(unit, count == 1 ? QString() : u"s"_s);
}

} // namespace

QString agentText(const QString& text) {
    return ServerLogManager::escapeControlCharacters(text);
}

QString uptimeText(quint64 seconds) {
    return plural(seconds / 86400, u"day"_s) + u", "_s + plural(seconds % 86400 / 3600, u"hour"_s);
}

QString statisticsText(const SystemStatsMessage& s) {
    const QList<std::pair<QString, QString>> rows{
        {u"Total memory"_s, gibText(s.totalMemory)},
        {u"Free memory"_s, gibText(s.freeMemory)},
        {u"Total disk space"_s, gibText(s.totalDiskSpace)},
        {u"Free disk space"_s, gibText(s.freeDiskSpace)},
        {u"CPU usage"_s, u"%1 %"_s.arg(s.cpuUsage * 100.0, 0, 'f', 1)},
        {u"OS version"_s, s.osVersion},
        {u"Model"_s, s.macModel},
        {u"Active application"_s, s.activeProcess},
        {u"Uptime"_s, s.uptimeSeconds ? uptimeText(*s.uptimeSeconds) : u"unknown"_s},
        {u"Agent version"_s, textOrNone(s.agentVersion)},
        {u"Screen capture allowed"_s, yesNo(s.screenCaptureAuthorized)},
        {u"Input control allowed"_s, yesNo(s.accessibilityAuthorized)},
        {u"Screen locked"_s, yesNo(s.screenLocked)},
        {u"Primary IP address"_s, textOrNone(s.primaryIPAddress)},
        {u"Logged-in user"_s, textOrNone(s.loggedInUser)},
        {u"Network name"_s, textOrNone(s.networkName)},
        {u"Displays"_s, s.displayCount ? QString::number(*s.displayCount) : u"unknown"_s},
        {u"Main display resolution"_s, textOrNone(s.mainDisplayResolution)},
        {u"Serial number"_s, textOrNone(s.serialNumber)},
        {u"Hardware UUID"_s, textOrNone(s.hardwareUUID)},
        {u"Disk encryption"_s, yesNo(s.fileVaultEnabled)},
        {u"Platform integrity"_s, yesNo(s.sipEnabled)},
        {u"Application control"_s, yesNo(s.gatekeeperEnabled)},
        {u"Device management"_s, yesNo(s.mdmEnrolled)},
        {u"Last boot"_s,
         s.lastBootTime ? s.lastBootTime->toLocalTime().toString(u"yyyy-MM-dd HH:mm:ss"_s) : u"unknown"_s},
        {u"Last sleep cause"_s, textOrNone(s.lastSleepCause)},
        {u"Last wake cause"_s, textOrNone(s.lastWakeCause)},
    };
    QStringList lines;
    for (const auto& [label, value] : rows) {
        lines.append((label + u':').leftJustified(25) + agentText(value));
    }
    if (!s.diskVolumes) {
        lines.append(u"Volumes:                 unknown"_s);
    } else {
        lines.append(u"Volumes:"_s);
        for (const HLVPDiskVolumeInfo& volume : *s.diskVolumes) {
            lines.append(u"  %1  %2: %3 free of %4"_s.arg(agentText(volume.path), agentText(volume.name),
                                                          gibText(volume.freeBytes),
                                                          gibText(volume.totalBytes)));
        }
    }
    return lines.join(u'\n');
}

QByteArray statisticsJson(const SystemStatsMessage& stats) {
    QJsonObject record = QCborValue::fromCbor(wire::encodeMessage(stats)).toMap().toJsonObject();
    record.remove(u"type"_s);
    return QJsonDocument(record).toJson(QJsonDocument::Compact);
}

namespace {

QString summaryOf(const HLVPMessage& message) {
    const QString type = wireTypeName(message);
    if (const auto* stats = std::get_if<SystemStatsMessage>(&message)) {
        return u"%1: memory %2 free of %3, disk %4 free of %5, uptime %6 s"_s.arg(
            type, bytesText(stats->freeMemory), bytesText(stats->totalMemory),
            bytesText(stats->freeDiskSpace), bytesText(stats->totalDiskSpace),
            optionalText(stats->uptimeSeconds));
    }
    if (const auto* error = std::get_if<ErrorMessage>(&message)) {
        return u"%1: %2: %3"_s.arg(type, error->code, error->message);
    }
    if (const auto* goodbye = std::get_if<DisconnectMessage>(&message)) {
        return u"%1: %2"_s.arg(type, goodbye->reason);
    }
    if (const auto* response = std::get_if<HandshakeResponseMessage>(&message)) {
        return u"%1: %2, protocol version %3, agent version %4"_s.arg(type, response->agentName)
            .arg(response->protocolVersion)
            .arg(response->agentVersion);
    }
    if (const auto* auth = std::get_if<AuthenticationResponseMessage>(&message)) {
        return u"%1: %2%3"_s.arg(type, auth->success ? u"signed in"_s : u"refused"_s,
                                 auth->errorMessage ? u": "_s + *auth->errorMessage : QString());
    }
    if (const auto* clipboard = std::get_if<ClipboardMessage>(&message)) {
        return u"%1: %2 characters"_s.arg(type).arg(clipboard->text.size());
    }
    return type;
}

} // namespace

QString messageSummary(const HLVPMessage& message) {
    // The type names are the viewer's own; every other part came over the wire.
    return agentText(summaryOf(message));
}

} // namespace tellwyn
