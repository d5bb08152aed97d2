#pragma once

#include "login_item.h"

#include <QStringList>

namespace tellwyn {

// An XDG autostart entry, tellwyn-agent.desktop in the user's autostart folder
// (~/.config/autostart), that starts `executable` with `arguments`.
class XdgAutostartLoginItem final : public LoginItem {
public:
    XdgAutostartLoginItem(QString autostartDirectory, QString executable, QStringList arguments);

    // The folder under XDG_CONFIG_HOME, and this program started with --start.
    static XdgAutostartLoginItem forThisProgram();

    std::optional<QString> registerItem() override;
    std::optional<QString> unregisterItem() override;
    QString entryPath() const;
    QString entryText() const;

private:
    QString m_directory;
    QString m_executable;
    QStringList m_arguments;
};

} // namespace tellwyn
