#include "sign_in_memory.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSaveFile>
#include <algorithm>

using namespace Qt::StringLiterals;

namespace tellwyn {

SignInMemory::SignInMemory(QString filePath) : m_filePath(std::move(filePath)) {
    load();
}

QString SignInMemory::entryKey(const QString& host, const QString& userName) {
    return host + u'|' + userName.trimmed().toLower();
}

bool SignInMemory::remembers(const QString& host, const QString& userName, const QDateTime& now) const {
    const auto found = m_lastSuccess.constFind(entryKey(host, userName));
    return found != m_lastSuccess.cend() && found->addDays(retentionDays) > now && *found <= now.addDays(1);
}

void SignInMemory::remember(const QString& host, const QString& userName, const QDateTime& now) {
    m_lastSuccess.insert(entryKey(host, userName), now);
    m_lastSuccess.removeIf([&](const QHash<QString, QDateTime>::iterator& it) {
        return it.value().addDays(retentionDays) <= now;
    });
    while (m_lastSuccess.size() > maxEntries) {
        m_lastSuccess.erase(std::min_element(m_lastSuccess.begin(), m_lastSuccess.end()));
    }
    save();
}

void SignInMemory::load() {
    if (m_filePath.isEmpty()) {
        return;
    }
    QFile file(m_filePath);
    // A damaged or oversized file is ignored: the memory only ever relaxes a block.
    if (!file.open(QIODevice::ReadOnly) || file.size() > 256 * 1024) {
        return;
    }
    const QJsonArray entries = QJsonDocument::fromJson(file.readAll()).array();
    for (const QJsonValue& value : entries) {
        const QJsonObject entry = value.toObject();
        const QDateTime when =
            QDateTime::fromString(entry.value(u"lastSignIn"_s).toString(), Qt::ISODateWithMs);
        const QString host = entry.value(u"host"_s).toString();
        if (when.isValid() && !host.isEmpty() && m_lastSuccess.size() < maxEntries) {
            m_lastSuccess.insert(entryKey(host, entry.value(u"user"_s).toString()), when);
        }
    }
}

void SignInMemory::save() const {
    if (m_filePath.isEmpty()) {
        return;
    }
    QJsonArray entries;
    for (auto it = m_lastSuccess.cbegin(); it != m_lastSuccess.cend(); ++it) {
        const qsizetype bar = it.key().indexOf(u'|');
        entries.append(QJsonObject{{u"host"_s, it.key().left(bar)},
                                   {u"user"_s, it.key().mid(bar + 1)},
                                   {u"lastSignIn"_s, it.value().toUTC().toString(Qt::ISODateWithMs)}});
    }
    QDir().mkpath(QFileInfo(m_filePath).absolutePath());
    const auto ownerOnly = QFile::ReadOwner | QFile::WriteOwner;
    if (!QFileInfo::exists(m_filePath)) {
        // Made empty and private first: the replacement written below keeps these permissions.
        QFile created(m_filePath);
        if (!created.open(QIODevice::WriteOnly | QIODevice::NewOnly)) {
            return;
        }
        created.setPermissions(ownerOnly);
    }
    QSaveFile file(m_filePath);
    if (!file.open(QIODevice::WriteOnly)) {
        return;
    }
    file.write(QJsonDocument(entries).toJson(QJsonDocument::Compact));
    if (file.commit()) {
        QFile::setPermissions(m_filePath, ownerOnly);
    }
}

} // namespace tellwyn
