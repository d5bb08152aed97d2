#include "message_text.h"

#include "hlvp_codec.h"

#include <QLocale>

using namespace Qt::StringLiterals;

namespace tellwyn {

namespace {

QString bytesText(quint64 bytes) {
    return QLocale::c().formattedDataSize(qint64(std::min<quint64>(bytes, INT64_MAX)), 1, QLocale::DataSizeIecFormat);
}

template <typename T>
QString optionalText(const std::optional<T>& value) {
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

QString statisticsText(const SystemStatsMessage& s) {
    QStringList lines{
        u"totalMemory: %1 (%2)"_s.arg(s.totalMemory).arg(bytesText(s.totalMemory)),
        u"freeMemory: %1 (%2)"_s.arg(s.freeMemory).arg(bytesText(s.freeMemory)),
        u"totalDiskSpace: %1 (%2)"_s.arg(s.totalDiskSpace).arg(bytesText(s.totalDiskSpace)),
        u"freeDiskSpace: %1 (%2)"_s.arg(s.freeDiskSpace).arg(bytesText(s.freeDiskSpace)),
        u"cpuUsage: %1"_s.arg(s.cpuUsage, 0, 'f', 3),
        u"osVersion: "_s + s.osVersion,
        u"macModel: "_s + s.macModel,
        u"activeProcess: "_s + s.activeProcess,
        u"uptimeSeconds: "_s + optionalText(s.uptimeSeconds),
        u"agentVersion: "_s + optionalText(s.agentVersion),
        u"screenCaptureAuthorized: "_s + optionalText(s.screenCaptureAuthorized),
        u"accessibilityAuthorized: "_s + optionalText(s.accessibilityAuthorized),
        u"screenLocked: "_s + optionalText(s.screenLocked),
        u"primaryIPAddress: "_s + optionalText(s.primaryIPAddress),
        u"loggedInUser: "_s + optionalText(s.loggedInUser),
        u"networkName: "_s + optionalText(s.networkName),
        u"displayCount: "_s + optionalText(s.displayCount),
        u"mainDisplayResolution: "_s + optionalText(s.mainDisplayResolution),
        u"serialNumber: "_s + optionalText(s.serialNumber),
        u"hardwareUUID: "_s + optionalText(s.hardwareUUID),
        u"fileVaultEnabled: "_s + optionalText(s.fileVaultEnabled),
        u"sipEnabled: "_s + optionalText(s.sipEnabled),
        u"gatekeeperEnabled: "_s + optionalText(s.gatekeeperEnabled),
        u"mdmEnrolled: "_s + optionalText(s.mdmEnrolled),
        u"lastBootTime: "_s + optionalText(s.lastBootTime),
        u"lastSleepCause: "_s + optionalText(s.lastSleepCause),
        u"lastWakeCause: "_s + optionalText(s.lastWakeCause),
    };
    if (s.diskVolumes) {
        lines.append(u"diskVolumes: %1"_s.arg(s.diskVolumes->size()));
        for (const HLVPDiskVolumeInfo& volume : *s.diskVolumes) {
            lines.append(u"  %1 at %2: %3 free of %4"_s.arg(volume.name, volume.path, bytesText(volume.freeBytes),
                                                            bytesText(volume.totalBytes)));
        }
    } else {
        lines.append(u"diskVolumes: (absent)"_s);
    }
    return lines.join(u'\n');
}

QString messageSummary(const HLVPMessage& message) {
    const QString type = wireTypeName(message);
    if (const auto* stats = std::get_if<SystemStatsMessage>(&message)) {
        return u"%1: memory %2 free of %3, disk %4 free of %5, uptime %6 s"_s.arg(
            type, bytesText(stats->freeMemory), bytesText(stats->totalMemory), bytesText(stats->freeDiskSpace),
            bytesText(stats->totalDiskSpace), optionalText(stats->uptimeSeconds));
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

} // namespace tellwyn
