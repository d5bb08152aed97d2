// An X application that records the input it receives: a window covering the screen that takes
// the keyboard focus and prints one line per event, keys as an application on this layout reads
// them (keysym by the event's own modifiers and group, and the modifiers the key left unused):
//   ready
//   key-press <keycode> <keysym name> <unused modifiers, hex>     (and key-release)
//   button-press <button> <x> <y>                                (and button-release)
//   motion <x> <y>

#include <cstdio>
#include <cstdlib>
#include <xcb/xcb.h>

#define explicit explicit_ // a field name in xcb's XKB header that C++ reserves
#include <xcb/xkb.h>
#undef explicit
#include <xkbcommon/xkbcommon-x11.h>
#include <xkbcommon/xkbcommon.h>

namespace {

struct Keyboard {
    xcb_connection_t* connection = nullptr;
    int32_t device = -1;
    xkb_context* context = xkb_context_new(XKB_CONTEXT_NO_FLAGS);
    xkb_keymap* keymap = nullptr;
    xkb_state* state = nullptr;

    void load() {
        xkb_state_unref(state);
        xkb_keymap_unref(keymap);
        keymap = xkb_x11_keymap_new_from_device(context, connection, device, XKB_KEYMAP_COMPILE_NO_FLAGS);
        state = xkb_state_new(keymap);
    }

    void print(const char* what, const xcb_key_press_event_t& event) {
        const xkb_mod_mask_t modifiers = event.state & 0xffU;
        xkb_state_update_mask(state, modifiers, 0, 0, 0, 0, (event.state >> 13U) & 3U);
        char name[64] = "NoSymbol";
        xkb_keysym_get_name(xkb_state_key_get_one_sym(state, event.detail), name, sizeof name);
        std::printf("%s %u %s 0x%x\n", what, event.detail, name,
                    xkb_state_mod_mask_remove_consumed(state, event.detail, modifiers));
    }
};

} // namespace

int main() {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    Keyboard keyboard;
    keyboard.connection = xcb_connect(nullptr, nullptr);
    xcb_connection_t* connection = keyboard.connection;
    uint8_t xkbEvents = 0;
    if (xcb_connection_has_error(connection) != 0 ||
        xkb_x11_setup_xkb_extension(connection, XKB_X11_MIN_MAJOR_XKB_VERSION, XKB_X11_MIN_MINOR_XKB_VERSION,
                                    XKB_X11_SETUP_XKB_EXTENSION_NO_FLAGS, nullptr, nullptr, &xkbEvents,
                                    nullptr) == 0) {
        std::fprintf(stderr, "x11_input_recorder: no X display with XKB\n");
        return 1;
    }
    keyboard.device = xkb_x11_get_core_keyboard_device_id(connection);
    const uint16_t keymapEvents = XCB_XKB_EVENT_TYPE_NEW_KEYBOARD_NOTIFY | XCB_XKB_EVENT_TYPE_MAP_NOTIFY;
    xcb_xkb_select_events(connection, static_cast<xcb_xkb_device_spec_t>(keyboard.device), keymapEvents, 0,
                          keymapEvents, 0xff, 0xff, nullptr);
    keyboard.load();

    const xcb_screen_t* screen = xcb_setup_roots_iterator(xcb_get_setup(connection)).data;
    const xcb_window_t window = xcb_generate_id(connection);
    const uint32_t eventMask = XCB_EVENT_MASK_KEY_PRESS | XCB_EVENT_MASK_KEY_RELEASE |
                               XCB_EVENT_MASK_BUTTON_PRESS | XCB_EVENT_MASK_BUTTON_RELEASE |
                               XCB_EVENT_MASK_POINTER_MOTION | XCB_EVENT_MASK_STRUCTURE_NOTIFY;
    xcb_create_window(connection, XCB_COPY_FROM_PARENT, window, screen->root, 0, 0, screen->width_in_pixels,
                      screen->height_in_pixels, 0, XCB_WINDOW_CLASS_INPUT_OUTPUT, screen->root_visual,
                      XCB_CW_EVENT_MASK, &eventMask);
    xcb_map_window(connection, window);
    xcb_flush(connection);

    while (xcb_generic_event_t* event = xcb_wait_for_event(connection)) {
        const auto* key = reinterpret_cast<const xcb_key_press_event_t*>(event);
        const auto* button = reinterpret_cast<const xcb_button_press_event_t*>(event);
        const auto* motion = reinterpret_cast<const xcb_motion_notify_event_t*>(event);
        switch (event->response_type & 0x7f) {
        case XCB_MAP_NOTIFY:
            xcb_set_input_focus(connection, XCB_INPUT_FOCUS_POINTER_ROOT, window, XCB_CURRENT_TIME);
            std::free(xcb_get_input_focus_reply(connection, xcb_get_input_focus(connection), nullptr));
            std::printf("ready\n");
            break;
        case XCB_KEY_PRESS:
            keyboard.print("key-press", *key);
            break;
        case XCB_KEY_RELEASE:
            keyboard.print("key-release", *key);
            break;
        case XCB_BUTTON_PRESS:
        case XCB_BUTTON_RELEASE:
            std::printf("%s %u %d %d\n",
                        (event->response_type & 0x7f) == XCB_BUTTON_PRESS ? "button-press" : "button-release",
                        button->detail, button->root_x, button->root_y);
            break;
        case XCB_MOTION_NOTIFY:
            std::printf("motion %d %d\n", motion->root_x, motion->root_y);
            break;
        default:
            if ((event->response_type & 0x7f) == xkbEvents &&
                (event->pad0 == XCB_XKB_NEW_KEYBOARD_NOTIFY || event->pad0 == XCB_XKB_MAP_NOTIFY)) {
                keyboard.load(); // the layout changed: read keys as applications now do
            }
        }
        std::free(event);
    }
    return 0;
}
