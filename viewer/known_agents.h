#pragma once

#include <QString>
#include <optional>

namespace tellwyn {

// The fingerprints this viewer has pinned, one line per agent: "HOST:PORT FINGERPRINT".
// Like SSH's known_hosts, the first identity seen is stored and any other is refused.
class KnownAgents {
public:
    explicit KnownAgents(QString path);

    // ~/.config/tellwyn/known_agents, following XDG_CONFIG_HOME.
    static QString defaultPath();

    struct Entry {
        QString fingerprint;
        int line = 0;
    };
    // The pinned fingerprint of `agent` ("host:port"); an error text when the file is unreadable.
    std::optional<Entry> find(const QString& agent, QString* error = nullptr) const;
    // Appends `agent` with `fingerprint`, creating the file (0600) and its folder (0700).
    bool add(const QString& agent, const QString& fingerprint, QString* error = nullptr);

    QString path() const { return m_path; }

private:
    QString m_path;
};

} // namespace tellwyn
