#pragma once

#include "hlvp_messages.h"

#include <QString>

namespace tellwyn {

// A text that came from the agent or the network (refusal reasons, names, statistics) as the
// terminal may show it: escaped as the agent's log escapes what it writes, so that it cannot move
// the cursor, drive the terminal or forge lines of its own.
QString agentText(const QString& text);

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
