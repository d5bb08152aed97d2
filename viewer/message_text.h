#pragma once

#include "hlvp_messages.h"

#include <QString>

namespace tellwyn {

// One line naming a message and its main content, as `tellwyn connect` prints what arrives.
QString messageSummary(const HLVPMessage& message);

// Every field of a statistics record, one "name: value" line each, in record order.
QString statisticsText(const SystemStatsMessage& stats);

} // namespace tellwyn
