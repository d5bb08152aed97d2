#pragma once

#include "hlvp_messages.h"
#include "host_parsing.h"

#include <QString>
#include <functional>
#include <optional>

class QObject;

namespace tellwyn {

// The machine as the statistics snapshot reads it: one operation per figure. Unless marked
// otherwise each runs on the statistics queue; none keeps state that the provider relies on.
class HostProbes {
public:
    virtual ~HostProbes() = default;

    struct DiskCapacity {
        quint64 totalBytes = 0;
        quint64 freeBytes = 0;
    };
    struct Displays {
        quint32 count = 0;
        QString mainResolution; // "W x H"; empty when unknown
    };

    // Main thread: the name of the application in front, when one qualifies.
    virtual std::optional<QString> activeApplicationName() = 0;
    // Main thread: calls `handler` on the main thread each time the system is about to sleep
    // (true) or has woken (false), until `context` is gone.
    virtual void observeSleepAndWake(QObject* context, std::function<void(bool goingToSleep)> handler) = 0;
    // Any thread but the statistics queue: the latest line of this boot's system log that
    // names `word`, cut to 120 characters; empty when none.
    virtual QString powerLogLine(const QString& word) = 0;

    virtual quint64 physicalMemory() = 0;
    virtual quint64 freeMemory() = 0; // 0 when unreadable
    virtual DiskCapacity rootDiskCapacity() = 0;
    virtual std::optional<CpuTicks> cpuTicks() = 0;
    virtual QString osVersion() = 0;
    virtual QString model() = 0;
    virtual double uptimeSeconds() = 0; // including time spent asleep
    virtual bool screenCaptureAuthorized() = 0;
    virtual bool accessibilityAuthorized() = 0;
    virtual std::optional<bool> screenLocked() = 0;
    virtual std::optional<InterfaceAddress> primaryInterface() = 0;
    virtual QString loggedInUser() = 0;
    virtual QString networkName(const std::optional<InterfaceAddress>& primary) = 0;
    virtual Displays displays() = 0;
    virtual QString serialNumber() = 0;
    virtual QString hardwareUUID() = 0;
    // The four security probes; a probe that cannot tell reports false.
    virtual bool diskEncryptionEnabled() = 0;
    virtual bool platformIntegrityEnabled() = 0;
    virtual bool applicationAssessmentEnabled() = 0;
    virtual bool managementEnrolled() = 0;
    virtual QList<HLVPDiskVolumeInfo> volumes() = 0;
};

} // namespace tellwyn
