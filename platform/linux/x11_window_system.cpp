#include "x11_window_system.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>
#include <xcb/randr.h>
#include <xcb/xcb.h>

namespace tellwyn {

namespace {

template <typename T> using Reply = std::unique_ptr<T, decltype(&std::free)>;

template <typename T> Reply<T> owned(T* reply) {
    return Reply<T>(reply, &std::free);
}

// One connection to the X server named by DISPLAY, with its first screen.
class Connection {
public:
    Connection() {
        const char* display = std::getenv("DISPLAY");
        if (display == nullptr || *display == '\0') {
            return;
        }
        m_connection = xcb_connect(display, &m_screenNumber);
        if (xcb_connection_has_error(m_connection) != 0) {
            return;
        }
        auto roots = xcb_setup_roots_iterator(xcb_get_setup(m_connection));
        for (int i = 0; i < m_screenNumber && roots.rem > 0; ++i) {
            xcb_screen_next(&roots);
        }
        m_screen = roots.rem > 0 ? roots.data : nullptr;
    }
    ~Connection() {
        if (m_connection != nullptr) {
            xcb_disconnect(m_connection);
        }
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    bool isOpen() const { return m_screen != nullptr; }
    xcb_connection_t* get() const { return m_connection; }
    xcb_screen_t* screen() const { return m_screen; }

    xcb_atom_t atom(const char* name) const {
        const auto reply = owned(xcb_intern_atom_reply(
            m_connection, xcb_intern_atom(m_connection, 1, static_cast<uint16_t>(std::strlen(name)), name),
            nullptr));
        return reply ? reply->atom : xcb_atom_t(XCB_ATOM_NONE);
    }

    // The 32-bit items of a window property; empty when it is missing. Types are not insisted on:
    // some clients write a CARDINAL where a WINDOW belongs.
    std::vector<uint32_t> cardinals(xcb_window_t window, xcb_atom_t property, xcb_atom_t type) const {
        const auto reply = owned(xcb_get_property_reply(
            m_connection, xcb_get_property(m_connection, 0, window, property, type, 0, 4096), nullptr));
        if (!reply || reply->format != 32) {
            return {};
        }
        const auto* values = static_cast<const uint32_t*>(xcb_get_property_value(reply.get()));
        const int count = xcb_get_property_value_length(reply.get()) / 4;
        return std::vector<uint32_t>(values, values + count);
    }

    QByteArray bytes(xcb_window_t window, xcb_atom_t property) const {
        const auto reply = owned(xcb_get_property_reply(
            m_connection, xcb_get_property(m_connection, 0, window, property, XCB_ATOM_ANY, 0, 1024),
            nullptr));
        if (!reply || reply->format != 8) {
            return {};
        }
        return QByteArray(static_cast<const char*>(xcb_get_property_value(reply.get())),
                          xcb_get_property_value_length(reply.get()));
    }

private:
    xcb_connection_t* m_connection = nullptr;
    xcb_screen_t* m_screen = nullptr;
    int m_screenNumber = 0;
};

} // namespace

QList<WindowSystem::WindowOwner> X11WindowSystem::frontWindowOwners() {
    Connection x;
    if (!x.isOpen()) {
        return {};
    }
    const xcb_window_t root = x.screen()->root;
    const xcb_atom_t pidAtom = x.atom("_NET_WM_PID");
    const xcb_atom_t typeAtom = x.atom("_NET_WM_WINDOW_TYPE");
    const xcb_atom_t normalAtom = x.atom("_NET_WM_WINDOW_TYPE_NORMAL");
    const auto owner = [&](xcb_window_t window, bool active) {
        WindowOwner result;
        const auto pid = x.cardinals(window, pidAtom, XCB_ATOM_ANY);
        result.pid = pid.empty() ? 0 : qint64(pid.front());
        // WM_CLASS is "instance\0class\0".
        const QList<QByteArray> parts = x.bytes(window, XCB_ATOM_WM_CLASS).split('\0');
        result.windowClass = QString::fromUtf8(parts.value(1));
        result.isActive = active;
        return result;
    };

    // Only applications' own windows count, not panels, docks, desktops or notifications (a
    // managed window without a type is a normal one), the active window included.
    QList<WindowOwner> owners;
    const auto active = x.cardinals(root, x.atom("_NET_ACTIVE_WINDOW"), XCB_ATOM_ANY);
    if (!active.empty() && active.front() != XCB_WINDOW_NONE) {
        const auto types = x.cardinals(active.front(), typeAtom, XCB_ATOM_ATOM);
        if (types.empty() || types.front() == normalAtom) {
            owners.append(owner(active.front(), true));
        }
    }
    const auto stacking = x.cardinals(root, x.atom("_NET_CLIENT_LIST_STACKING"), XCB_ATOM_ANY);
    for (auto it = stacking.crbegin(); it != stacking.crend(); ++it) {
        const auto types = x.cardinals(*it, typeAtom, XCB_ATOM_ATOM);
        if (types.empty() || types.front() == normalAtom) {
            owners.append(owner(*it, false));
        }
    }
    return owners;
}

WindowSystem::Screens X11WindowSystem::screens() {
    Connection x;
    if (!x.isOpen()) {
        return {};
    }
    const auto monitors = owned(
        xcb_randr_get_monitors_reply(x.get(), xcb_randr_get_monitors(x.get(), x.screen()->root, 1), nullptr));
    if (!monitors) {
        // Without RandR the screen is one display.
        return {1, x.screen()->width_in_pixels, x.screen()->height_in_pixels};
    }
    Screens result;
    result.count = static_cast<quint32>(xcb_randr_get_monitors_monitors_length(monitors.get()));
    bool havePrimary = false;
    for (auto it = xcb_randr_get_monitors_monitors_iterator(monitors.get()); it.rem > 0;
         xcb_randr_monitor_info_next(&it)) {
        if (!havePrimary && (it.data->primary != 0 || result.primaryWidth == 0)) {
            result.primaryWidth = it.data->width;
            result.primaryHeight = it.data->height;
            havePrimary = it.data->primary != 0;
        }
    }
    return result;
}

} // namespace tellwyn
