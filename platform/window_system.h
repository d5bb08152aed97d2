#pragma once

#include <QList>
#include <QString>

namespace tellwyn {

// What the statistics ask of the window system: whose windows are in front, and the screens.
class WindowSystem {
public:
    virtual ~WindowSystem() = default;

    struct WindowOwner {
        qint64 pid = 0;        // 0 when the window does not name its process
        QString windowClass;   // the class part of WM_CLASS, may be empty
        bool isActive = false; // the window the window manager calls active
    };

    struct Screens {
        quint32 count = 0;
        int primaryWidth = 0;
        int primaryHeight = 0;
    };

    // The active window's owner first (when there is one), then the normal windows from the top
    // of the stacking order down. Empty without a window system.
    virtual QList<WindowOwner> frontWindowOwners() = 0;
    virtual Screens screens() = 0;
};

} // namespace tellwyn
