#include "settings_preferences.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace tellwyn {

namespace {

// Reads the file the way QSettings will, to tell "unreadable" apart from "absent".
QString readProblem(const QString& path) {
    if (!QFileInfo::exists(path)) {
        return {};
    }
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return QString::fromLocal8Bit(std::strerror(errno));
    }
    ::close(fd);
    return {};
}

} // namespace

SettingsPreferences::SettingsPreferences(const QString& filePath) : m_filePath(filePath) {
    QDir().mkpath(QFileInfo(filePath).absolutePath());

    if (const QString unreadable = readProblem(filePath); !unreadable.isEmpty()) {
        m_problem = u"Cannot read the preferences file %1 (%2); using defaults, and changes made in this "
                    u"run will not be saved."_s.arg(filePath, unreadable);
        m_inMemory = true;
        return;
    }

    m_settings = std::make_unique<QSettings>(filePath, QSettings::IniFormat);
    if (m_settings->status() == QSettings::FormatError) {
        m_settings.reset();
        const QString aside =
            filePath + u".broken-"_s + QDateTime::currentDateTimeUtc().toString(u"yyyyMMddTHHmmss"_s);
        if (QFile::rename(filePath, aside)) {
            m_problem = u"The preferences file %1 could not be parsed; it was kept as %2 and the defaults "
                        u"are used."_s.arg(filePath, aside);
            m_settings = std::make_unique<QSettings>(filePath, QSettings::IniFormat);
        } else {
            m_problem = u"The preferences file %1 could not be parsed and could not be moved aside; using "
                        u"defaults, and changes made in this run will not be saved."_s.arg(filePath);
            m_inMemory = true;
        }
        return;
    }
    if (!m_settings->isWritable()) {
        m_problem =
            u"The preferences file %1 is not writable; changes made in this run will not be saved."_s.arg(
                filePath);
    }
}

std::optional<QVariant> SettingsPreferences::object(const QString& key) const {
    if (m_inMemory) {
        const auto it = m_memory.constFind(key);
        return it == m_memory.cend() ? std::nullopt : std::optional<QVariant>(*it);
    }
    if (!m_settings->contains(key)) {
        return std::nullopt;
    }
    return m_settings->value(key);
}

void SettingsPreferences::set(const QString& key, const QVariant& value) {
    if (m_inMemory) {
        m_memory.insert(key, value);
        return;
    }
    m_settings->setValue(key, value);
    sync();
}

void SettingsPreferences::remove(const QString& key) {
    if (m_inMemory) {
        m_memory.remove(key);
        return;
    }
    m_settings->remove(key);
    sync();
}

void SettingsPreferences::sync() {
    // Written at once: a preference the user changed must survive a crash or power loss.
    m_settings->sync();
}

} // namespace tellwyn
