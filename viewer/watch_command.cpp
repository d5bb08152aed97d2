// tellwyn watch: sign in and show each statistics record as it arrives, until interrupted.

#include "viewer_command.h"

using namespace Qt::StringLiterals;

namespace tellwyn {

int watchCommand(const QStringList& arguments, QTextStream& out, QTextStream& err) {
    return statisticsSession(arguments, out, err, u"watch"_s, true);
}

} // namespace tellwyn
