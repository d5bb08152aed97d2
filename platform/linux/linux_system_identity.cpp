#include "linux_system_identity.h"

#include <QFile>
#include <QSysInfo>

#include <pwd.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace tellwyn {

QString LinuxSystemIdentity::loginName() const {
    // getpwuid_r: the agent's other threads may look up accounts too.
    struct passwd entry {};
    struct passwd* result = nullptr;
    long bufferSize = ::sysconf(_SC_GETPW_R_SIZE_MAX);
    QByteArray buffer(bufferSize > 0 ? static_cast<qsizetype>(bufferSize) : 16384, '\0');
    if (::getpwuid_r(::getuid(), &entry, buffer.data(), static_cast<size_t>(buffer.size()), &result) == 0 &&
        result != nullptr) {
        return QString::fromLocal8Bit(result->pw_name);
    }
    return QString::number(::getuid());
}

std::optional<QString> LinuxSystemIdentity::localizedComputerName() const {
    // hostnamed keeps the pretty name in this file; reading it directly answers at once, where
    // asking hostnamed on the bus could hold the caller for seconds while it starts on demand.
    QFile machineInfo(m_machineInfoPath);
    if (machineInfo.open(QIODevice::ReadOnly)) {
        const QString pretty = prettyHostname(machineInfo.read(64 * 1024));
        if (!pretty.isEmpty()) {
            return pretty;
        }
    }
    const QString hostName = QSysInfo::machineHostName().trimmed();
    if (hostName.isEmpty()) {
        return std::nullopt;
    }
    return hostName;
}

QString LinuxSystemIdentity::prettyHostname(const QByteArray& machineInfo) {
    for (const QByteArray& rawLine : machineInfo.split('\n')) {
        const QByteArray line = rawLine.trimmed();
        if (!line.startsWith("PRETTY_HOSTNAME=")) {
            continue;
        }
        QString value = QString::fromUtf8(line.mid(16));
        // Shell-style quoting, as the file is written: '…' literally, "…" with backslash escapes.
        if (value.size() >= 2 && value.front() == u'\'' && value.back() == u'\'') {
            return value.mid(1, value.size() - 2).trimmed();
        }
        const bool doubleQuoted = value.size() >= 2 && value.front() == u'"' && value.back() == u'"';
        if (doubleQuoted) {
            value = value.mid(1, value.size() - 2);
        }
        QString unescaped;
        for (qsizetype i = 0; i < value.size(); ++i) {
            if (value.at(i) == u'\\' && i + 1 < value.size()) {
                ++i;
            }
            unescaped.append(value.at(i));
        }
        return unescaped.trimmed();
    }
    return {};
}

} // namespace tellwyn
