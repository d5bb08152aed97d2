#include "known_agents.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>

using namespace Qt::StringLiterals;

namespace tellwyn {

KnownAgents::KnownAgents(QString path) : m_path(std::move(path)) {
}

QString KnownAgents::defaultPath() {
    return QDir(QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation))
        .filePath(u"tellwyn/known_agents"_s);
}

std::optional<KnownAgents::Entry> KnownAgents::find(const QString& agent, QString* error) const {
    QFile file(m_path);
    if (!file.exists()) {
        return std::nullopt;
    }
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text)) {
        if (error != nullptr) {
            *error = u"cannot read %1: %2"_s.arg(m_path, file.errorString());
        }
        return std::nullopt;
    }
    int number = 0;
    while (!file.atEnd()) {
        ++number;
        const QString line = QString::fromUtf8(file.readLine()).trimmed();
        if (line.isEmpty() || line.startsWith(u'#')) {
            continue;
        }
        const QStringList fields = line.split(u' ', Qt::SkipEmptyParts);
        if (fields.size() >= 2 && fields.at(0) == agent) {
            return Entry{fields.at(1), number};
        }
    }
    return std::nullopt;
}

bool KnownAgents::add(const QString& agent, const QString& fingerprint, QString* error) {
    const QFileInfo info(m_path);
    QDir folder = info.absoluteDir();
    if (!folder.exists()) {
        if (!folder.mkpath(u"."_s)) {
            if (error != nullptr) {
                *error = u"cannot create %1"_s.arg(folder.path());
            }
            return false;
        }
        QFile::setPermissions(folder.path(), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    }
    QFile file(m_path);
    if (!file.open(QIODevice::Append | QIODevice::Text)) {
        if (error != nullptr) {
            *error = u"cannot write %1: %2"_s.arg(m_path, file.errorString());
        }
        return false;
    }
    file.setPermissions(QFile::ReadOwner | QFile::WriteOwner);
    file.write((agent + u' ' + fingerprint + u'\n').toUtf8());
    return file.flush();
}

} // namespace tellwyn
