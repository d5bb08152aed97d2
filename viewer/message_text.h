#pragma once

#include "hlvp_messages.h"

#include <QString>

namespace tellwyn {

// One line naming a message and its main content, as `tellwyn connect` prints what arrives.
QString messageSummary(const HLVPMessage& message);

// Every field of a statistics record, one "Label: value" line each in record order, for people:
// sizes in GiB, uptime in days and hours, yes/no/unknown, then one line per volume.
QString statisticsText(const SystemStatsMessage& stats);
// The record's fields as one line of JSON, as they came over the wire.
QByteArray statisticsJson(const SystemStatsMessage& stats);
// "3 days, 4 hours".
QString uptimeText(quint64 seconds);

} // namespace tellwyn
