#pragma once

#include "preferences.h"

#include <QSettings>
#include <memory>

namespace tellwyn {

// Preferences in an INI file (QSettings). A file that cannot be parsed is moved aside, never
// overwritten, and the agent goes on with defaults; a file that cannot be read or written keeps
// the preferences in memory for this run. Either way `problem()` says what happened.
class SettingsPreferences final : public Preferences {
public:
    explicit SettingsPreferences(const QString& filePath);

    std::optional<QVariant> object(const QString& key) const override;
    void set(const QString& key, const QVariant& value) override;
    void remove(const QString& key) override;

    QString filePath() const { return m_filePath; }
    // Empty when the file was read and can be written; otherwise a sentence for the user.
    QString problem() const { return m_problem; }

private:
    void sync();

    QString m_filePath;
    QString m_problem;
    std::unique_ptr<QSettings> m_settings;
    bool m_inMemory = false;
    QVariantMap m_memory;
};

} // namespace tellwyn
