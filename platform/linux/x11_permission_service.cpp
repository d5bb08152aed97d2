#include "x11_permission_service.h"

#include "desktop_settings.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <xcb/xcb.h>

namespace tellwyn {

namespace {

struct Disconnect {
    void operator()(xcb_connection_t* connection) const { xcb_disconnect(connection); }
};
using Connection = std::unique_ptr<xcb_connection_t, Disconnect>;

Connection connectToDisplay() {
    const char* display = std::getenv("DISPLAY");
    if (display == nullptr || *display == '\0') {
        return nullptr;
    }
    Connection connection(xcb_connect(display, nullptr));
    if (xcb_connection_has_error(connection.get()) != 0) {
        return nullptr;
    }
    return connection;
}

} // namespace

bool X11PermissionService::screenCaptureAllowed() {
    const Connection connection = connectToDisplay();
    if (!connection) {
        return false;
    }
    const xcb_screen_t* screen = xcb_setup_roots_iterator(xcb_get_setup(connection.get())).data;
    if (screen == nullptr) {
        return false;
    }
    const auto cookie =
        xcb_get_image(connection.get(), XCB_IMAGE_FORMAT_Z_PIXMAP, screen->root, 0, 0, 1, 1, ~0U);
    xcb_get_image_reply_t* reply = xcb_get_image_reply(connection.get(), cookie, nullptr);
    const bool captured = reply != nullptr && xcb_get_image_data_length(reply) > 0;
    std::free(reply);
    return captured;
}

bool X11PermissionService::inputInjectionAllowed() {
    const Connection connection = connectToDisplay();
    if (!connection) {
        return false;
    }
    static constexpr char extension[] = "XTEST";
    const auto cookie = xcb_query_extension(connection.get(), std::strlen(extension), extension);
    xcb_query_extension_reply_t* reply = xcb_query_extension_reply(connection.get(), cookie, nullptr);
    const bool present = reply != nullptr && reply->present != 0;
    std::free(reply);
    return present;
}

bool X11PermissionService::openSettings(SettingsPage page) {
    return openDesktopSettings(page);
}

} // namespace tellwyn
