#include "linux_system_events.h"

#include <QCoreApplication>
#include <QDBusConnection>

using namespace Qt::StringLiterals;

namespace tellwyn {

LinuxSystemEvents::LinuxSystemEvents(QObject* parent) : SystemEvents(parent) {
    connect(QCoreApplication::instance(), &QCoreApplication::aboutToQuit, this, &SystemEvents::willTerminate);

    QDBusConnection system = QDBusConnection::systemBus();
    if (system.isConnected()) {
        system.connect(u"org.freedesktop.login1"_s, u"/org/freedesktop/login1"_s,
                       u"org.freedesktop.login1.Manager"_s, u"PrepareForSleep"_s, this,
                       SLOT(onPrepareForSleep(bool)));
    }
    QDBusConnection session = QDBusConnection::sessionBus();
    if (session.isConnected()) {
        // Both names are in use: the freedesktop one (KDE, Xfce) and GNOME's own.
        session.connect({}, u"/org/freedesktop/ScreenSaver"_s, u"org.freedesktop.ScreenSaver"_s,
                        u"ActiveChanged"_s, this, SLOT(onScreenSaverActiveChanged(bool)));
        session.connect({}, u"/org/gnome/ScreenSaver"_s, u"org.gnome.ScreenSaver"_s, u"ActiveChanged"_s, this,
                        SLOT(onScreenSaverActiveChanged(bool)));
    }
}

void LinuxSystemEvents::onPrepareForSleep(bool goingToSleep) {
    if (goingToSleep) {
        Q_EMIT screensDidSleep();
    } else {
        Q_EMIT screensDidWake();
    }
}

void LinuxSystemEvents::onScreenSaverActiveChanged(bool active) {
    onPrepareForSleep(active);
}

} // namespace tellwyn
