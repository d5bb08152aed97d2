#include "linux_system_identity.h"

#include <QFile>
#include <QSysInfo>
#include <pwd.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace tellwyn {

namespace {

// PRETTY_HOSTNAME of machine-info(5), the file hostnamed keeps it in: a shell-style assignment
// whose value may be quoted and backslash-escaped. Read directly, so that no D-Bus is needed.
QString prettyHostName(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return {};
    }
    const QByteArray key = "PRETTY_HOSTNAME=";
    while (!file.atEnd()) {
        const QByteArray line = file.readLine().trimmed();
        if (!line.startsWith(key)) {
            continue;
        }
        const QString raw = QString::fromUtf8(line.mid(key.size()));
        QString value;
        QChar quote;
        for (qsizetype i = 0; i < raw.size(); ++i) {
            const QChar c = raw.at(i);
            if (c == u'\\' && i + 1 < raw.size() && quote != u'\'') {
                value += raw.at(++i);
            } else if ((c == u'"' || c == u'\'') && (quote.isNull() || quote == c)) {
                quote = quote.isNull() ? c : QChar();
            } else {
                value += c;
            }
        }
        return value.trimmed();
    }
    return {};
}

} // namespace

LinuxSystemIdentity::LinuxSystemIdentity(QString machineInfoPath)
    : m_machineInfoPath(std::move(machineInfoPath)) {
}

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
    const QString pretty = prettyHostName(m_machineInfoPath);
    if (!pretty.isEmpty()) {
        return pretty;
    }
    const QString hostName = QSysInfo::machineHostName().trimmed();
    if (hostName.isEmpty()) {
        return std::nullopt;
    }
    return hostName;
}

} // namespace tellwyn
