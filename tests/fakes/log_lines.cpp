#include "log_lines.h"

#include "server_log_manager.h"
#include "virtual_time.h"

#include <QDebug>
#include <QTcpServer>

using namespace Qt::StringLiterals;

namespace tellwyn::testing {

quint16 freeLoopbackPort() {
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost, 0);
    return probe.serverPort();
}

QStringList loggedLines() {
    VirtualTime::drainEvents();
    QStringList lines;
    for (const QString& line : ServerLogManager::shared().logs()) {
        const ParsedLogLine parsed = ServerLogManager::parseLogLine(line);
        lines.append(u"[%1] %2"_s.arg(parsed.category, parsed.message));
    }
    return lines;
}

bool loggedInOrder(const QStringList& expected) {
    const QStringList lines = loggedLines();
    qsizetype from = 0;
    for (const QString& line : expected) {
        from = lines.indexOf(line, from);
        if (from < 0) {
            qWarning().noquote() << "missing or out of order:" << line << "\nlog:\n" << lines.join(u'\n');
            return false;
        }
        ++from;
    }
    return true;
}

qsizetype loggedCount(const QString& line) {
    return loggedLines().count(line);
}

} // namespace tellwyn::testing
