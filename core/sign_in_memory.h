#pragma once

#include <QDateTime>
#include <QHash>
#include <QString>

namespace tellwyn {

// Which source addresses have signed in successfully for which user name, and when: a small file
// in the agent's data folder (mode 0600), so that the real user's own hosts are not locked out by
// failures that others cause against the same name. Entries expire after `retentionDays`; at most
// `maxEntries` are kept, the oldest dropped first. Main thread only.
class SignInMemory {
public:
    static constexpr int retentionDays = 30;
    static constexpr qsizetype maxEntries = 256;

    // `filePath` empty: nothing is kept beyond the process.
    explicit SignInMemory(QString filePath);

    bool remembers(const QString& host, const QString& userName, const QDateTime& now) const;
    void remember(const QString& host, const QString& userName, const QDateTime& now);

private:
    static QString entryKey(const QString& host, const QString& userName);
    void load();
    void save() const;

    QString m_filePath;
    QHash<QString, QDateTime> m_lastSuccess; // "host|name" -> last successful sign-in
};

} // namespace tellwyn
