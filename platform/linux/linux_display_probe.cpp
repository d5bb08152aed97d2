#include "linux_display_probe.h"

#include "x11_display.h"

#include <QGuiApplication>
#include <QScreen>

using namespace Qt::StringLiterals;

namespace tellwyn {

namespace {

bool isVirtualPlatform(const QString& name) {
    return name == "offscreen"_L1 || name == "minimal"_L1 || name == "vnc"_L1;
}

} // namespace

bool LinuxDisplayProbe::displayReachable() {
    return desktopDisplayReachable();
}

int LinuxDisplayProbe::displayCount() const {
    if (auto* gui = qobject_cast<QGuiApplication*>(QCoreApplication::instance())) {
        return isVirtualPlatform(QGuiApplication::platformName()) ? 0
                                                                  : static_cast<int>(gui->screens().size());
    }
    return x11MonitorCount();
}

} // namespace tellwyn
