#include "desktop_settings.h"

#include <QList>
#include <QPair>
#include <QProcess>
#include <QStandardPaths>
#include <QStringList>

using namespace Qt::StringLiterals;

namespace tellwyn {

bool openDesktopSettings(PermissionService::SettingsPage page) {
    using SettingsPage = PermissionService::SettingsPage;
    // GNOME names its panels, KDE its modules; the first program that exists is used.
    QList<QPair<QString, QStringList>> candidates;
    switch (page) {
    case SettingsPage::screenSharing:
        candidates = {{u"gnome-control-center"_s, {u"sharing"_s}}, {u"systemsettings"_s, {u"kcm_krfb"_s}}};
        break;
    case SettingsPage::screenRecording:
        candidates = {{u"gnome-control-center"_s, {u"privacy"_s}}};
        break;
    case SettingsPage::privacy:
        candidates = {{u"gnome-control-center"_s, {u"privacy"_s}}, {u"systemsettings"_s, {}}};
        break;
    }
    for (const auto& [program, arguments] : std::as_const(candidates)) {
        const QString path = QStandardPaths::findExecutable(program);
        if (!path.isEmpty() && QProcess::startDetached(path, arguments)) {
            return true;
        }
    }
    return false;
}

} // namespace tellwyn
