#include "x11_display.h"

#include <QFileInfo>
#include <QString>
#include <cstdlib>
#include <xcb/randr.h>
#include <xcb/xcb.h>

namespace tellwyn {

int x11MonitorCount() {
    const char* display = std::getenv("DISPLAY");
    if (display == nullptr || *display == '\0') {
        return 0;
    }
    xcb_connection_t* connection = xcb_connect(display, nullptr);
    int count = 0;
    if (xcb_connection_has_error(connection) == 0) {
        const xcb_setup_t* setup = xcb_get_setup(connection);
        for (auto roots = xcb_setup_roots_iterator(setup); roots.rem > 0; xcb_screen_next(&roots)) {
            auto cookie = xcb_randr_get_monitors(connection, roots.data->root, 1);
            xcb_randr_get_monitors_reply_t* reply = xcb_randr_get_monitors_reply(connection, cookie, nullptr);
            // Without RandR every X screen is one display.
            count += reply != nullptr ? xcb_randr_get_monitors_monitors_length(reply) : 1;
            std::free(reply);
        }
    }
    xcb_disconnect(connection);
    return count;
}

bool desktopDisplayReachable() {
    const char* wayland = std::getenv("WAYLAND_DISPLAY");
    const char* runtimeDirectory = std::getenv("XDG_RUNTIME_DIR");
    if (wayland != nullptr && *wayland != '\0') {
        const QString socket = QString::fromLocal8Bit(wayland);
        const QString path =
            socket.startsWith(u'/') ? socket : QString::fromLocal8Bit(runtimeDirectory) + u'/' + socket;
        if (QFileInfo(path).exists()) {
            return true;
        }
    }
    const char* display = std::getenv("DISPLAY");
    if (display == nullptr || *display == '\0') {
        return false;
    }
    xcb_connection_t* connection = xcb_connect(display, nullptr);
    const bool reachable = xcb_connection_has_error(connection) == 0;
    xcb_disconnect(connection);
    return reachable;
}

} // namespace tellwyn
