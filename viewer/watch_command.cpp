// tellwyn watch: sign in and show each statistics record as it arrives, until interrupted.

#include "viewer_command.h"

using namespace Qt::StringLiterals;

namespace tellwyn {

int watchCommand(const QStringList& arguments, QTextStream& out, QTextStream& err,
                 const ViewerPlatform& platform) {
    return statisticsSession(arguments, out, err, platform, u"watch"_s, true);
}

} // namespace tellwyn
