#include "x11_input_injector.h"

#include <QList>
#include <algorithm>
#include <bit>
#include <cstdlib>
#include <map>
#include <optional>
#include <set>
#include <vector>
#include <xcb/xcb.h>
#include <xcb/xtest.h>

// xcb's XKB header names a field `explicit`, which C++ reserves.
#define explicit explicit_
#include <xcb/xkb.h>
#undef explicit
#include <xkbcommon/xkbcommon-x11.h>
#include <xkbcommon/xkbcommon.h>

namespace tellwyn {

namespace {

template <typename T> struct FreeReply {
    void operator()(T* reply) const { std::free(reply); }
};
template <typename T> using Reply = std::unique_ptr<T, FreeReply<T>>;

// X numbers keys from 8 up; the kernel's evdev codes from 0.
constexpr int evdevToX11Keycode = 8;
constexpr int wheelStepsPerClick = 120;

// The keyboard state as the server has it. Modifier masks use the X bit order (Shift, Lock,
// Control, Mod1..Mod5), which is also the order of xkbcommon's real modifiers.
struct ServerState {
    uint8_t depressed = 0;
    uint8_t latched = 0;
    uint8_t locked = 0;
    uint8_t group = 0;
    uint8_t lockedGroup = 0;
};

// Where a keysym is found: the key, the held modifiers that make it produce the keysym, and the
// group (layout) it lies in.
struct KeyChoice {
    xcb_keycode_t keycode = 0;
    uint8_t modifiers = 0;
    uint8_t group = 0;
    int cost = 0;
};

struct KeyPress {
    quint32 keysym = 0;
    quint32 evdevCode = 0;
    xcb_keycode_t keycode = 0;
    bool lifted = false; // released on the server while still held by the viewer (the AltGr rule)
};

// A viewer on Windows sends AltGr as this pair.
constexpr xkb_keysym_t windowsAltGrControl = XKB_KEY_Control_L;
constexpr xkb_keysym_t windowsAltGrAlt = XKB_KEY_Alt_R;

// Modifier keysyms that do the same job when the layout lacks the one asked for.
std::optional<xkb_keysym_t> modifierStandIn(xkb_keysym_t keysym) {
    switch (keysym) {
    case XKB_KEY_Alt_R:
    case XKB_KEY_Meta_L:
    case XKB_KEY_Meta_R:
        return XKB_KEY_Alt_L;
    case XKB_KEY_Control_R:
        return XKB_KEY_Control_L;
    case XKB_KEY_Shift_R:
        return XKB_KEY_Shift_L;
    case XKB_KEY_Super_R:
        return XKB_KEY_Super_L;
    case XKB_KEY_Mode_switch:
        return XKB_KEY_ISO_Level3_Shift;
    case XKB_KEY_ISO_Level3_Shift:
        return XKB_KEY_Mode_switch;
    default:
        return std::nullopt;
    }
}

} // namespace

struct X11InputInjector::Private {
    xcb_connection_t* connection = nullptr;
    xcb_window_t root = XCB_NONE;
    xcb_keycode_t minKeycode = 0;
    xcb_keycode_t maxKeycode = 0;
    bool usable = false;

    int32_t keyboard = -1;
    uint8_t xkbEventBase = 0;
    xkb_context* context = nullptr;
    xkb_keymap* keymap = nullptr;
    xkb_state* scratch = nullptr; // for asking "what would this key give in that state"
    uint8_t keysymsPerKeycode = 1;

    // Keys whose only job is to set modifiers while held (never a lock), with what they set.
    std::map<xcb_keycode_t, uint8_t> modifierKeys;
    uint8_t levelThreeMask = 0;

    // Keycodes with nothing on them, lent to keysyms the layout lacks, in turn.
    std::vector<xcb_keycode_t> spareKeycodes;
    size_t nextSpare = 0;
    std::set<xcb_keycode_t> borrowed;
    std::vector<xcb_keycode_t> remappedByUs; // so that our own map changes cause no reload

    KeyMode mode = KeyMode::bySymbol;
    std::vector<KeyPress> presses;
    std::vector<uint8_t> buttons;
    int wheelRemainder[2] = {0, 0}; // horizontal, vertical

    ~Private() {
        xkb_state_unref(scratch);
        xkb_keymap_unref(keymap);
        xkb_context_unref(context);
        if (connection != nullptr) {
            xcb_disconnect(connection);
        }
    }

    void fakeKey(xcb_keycode_t keycode, bool pressed) {
        xcb_test_fake_input(connection, pressed ? XCB_KEY_PRESS : XCB_KEY_RELEASE, keycode, XCB_CURRENT_TIME,
                            XCB_NONE, 0, 0, XCB_NONE);
    }

    void fakeButton(uint8_t button, bool pressed) {
        xcb_test_fake_input(connection, pressed ? XCB_BUTTON_PRESS : XCB_BUTTON_RELEASE, button,
                            XCB_CURRENT_TIME, XCB_NONE, 0, 0, XCB_NONE);
    }

    bool connect(const QByteArray& displayName) {
        connection = xcb_connect(displayName.isEmpty() ? nullptr : displayName.constData(), nullptr);
        if (xcb_connection_has_error(connection) != 0) {
            return false;
        }
        const xcb_setup_t* setup = xcb_get_setup(connection);
        root = xcb_setup_roots_iterator(setup).data->root;
        minKeycode = setup->min_keycode;
        maxKeycode = setup->max_keycode;
        const Reply<xcb_test_get_version_reply_t> xtest(
            xcb_test_get_version_reply(connection, xcb_test_get_version(connection, 2, 2), nullptr));
        if (!xtest) {
            return false;
        }
        if (xkb_x11_setup_xkb_extension(connection, XKB_X11_MIN_MAJOR_XKB_VERSION,
                                        XKB_X11_MIN_MINOR_XKB_VERSION, XKB_X11_SETUP_XKB_EXTENSION_NO_FLAGS,
                                        nullptr, nullptr, &xkbEventBase, nullptr) == 0) {
            return false;
        }
        keyboard = xkb_x11_get_core_keyboard_device_id(connection);
        context = xkb_context_new(XKB_CONTEXT_NO_FLAGS);
        if (keyboard < 0 || context == nullptr) {
            return false;
        }
        const uint16_t events = XCB_XKB_EVENT_TYPE_NEW_KEYBOARD_NOTIFY | XCB_XKB_EVENT_TYPE_MAP_NOTIFY;
        const uint16_t mapParts = XCB_XKB_MAP_PART_KEY_TYPES | XCB_XKB_MAP_PART_KEY_SYMS |
                                  XCB_XKB_MAP_PART_MODIFIER_MAP | XCB_XKB_MAP_PART_KEY_ACTIONS |
                                  XCB_XKB_MAP_PART_VIRTUAL_MODS | XCB_XKB_MAP_PART_VIRTUAL_MOD_MAP;
        xcb_xkb_select_events(connection, static_cast<xcb_xkb_device_spec_t>(keyboard), events, 0, events,
                              mapParts, mapParts, nullptr);
        return loadKeymap();
    }

    bool loadKeymap() {
        xkb_keymap* fresh =
            xkb_x11_keymap_new_from_device(context, connection, keyboard, XKB_KEYMAP_COMPILE_NO_FLAGS);
        if (fresh == nullptr) {
            return false;
        }
        xkb_state_unref(scratch);
        xkb_keymap_unref(keymap);
        keymap = fresh;
        scratch = xkb_state_new(keymap);

        const Reply<xcb_get_keyboard_mapping_reply_t> core(xcb_get_keyboard_mapping_reply(
            connection,
            xcb_get_keyboard_mapping(connection, minKeycode,
                                     static_cast<uint8_t>(maxKeycode - minKeycode + 1)),
            nullptr));
        keysymsPerKeycode = core ? std::max<uint8_t>(core->keysyms_per_keycode, 1) : 1;

        modifierKeys.clear();
        spareKeycodes.clear();
        levelThreeMask = 0;
        uint8_t modeSwitchMask = 0;
        for (int keycode = minKeycode; keycode <= maxKeycode; ++keycode) {
            const auto key = static_cast<xcb_keycode_t>(keycode);
            if (hasNoSymbols(key) || borrowed.contains(key)) {
                spareKeycodes.push_back(key);
                continue;
            }
            const uint8_t mods = modifiersSetWhileHeld(key);
            if (mods == 0) {
                continue;
            }
            modifierKeys[key] = mods;
            const xkb_keysym_t* syms = nullptr;
            if (xkb_keymap_key_get_syms_by_level(keymap, key, 0, 0, &syms) == 1) {
                if (syms[0] == XKB_KEY_ISO_Level3_Shift && levelThreeMask == 0) {
                    levelThreeMask = mods;
                } else if (syms[0] == XKB_KEY_Mode_switch && modeSwitchMask == 0) {
                    modeSwitchMask = mods;
                }
            }
        }
        if (levelThreeMask == 0) {
            levelThreeMask = modeSwitchMask;
        }
        nextSpare = spareKeycodes.empty() ? 0 : nextSpare % spareKeycodes.size();
        return true;
    }

    bool hasNoSymbols(xcb_keycode_t keycode) const {
        const xkb_layout_index_t layouts = xkb_keymap_num_layouts_for_key(keymap, keycode);
        for (xkb_layout_index_t layout = 0; layout < layouts; ++layout) {
            const xkb_level_index_t levels = xkb_keymap_num_levels_for_key(keymap, keycode, layout);
            for (xkb_level_index_t level = 0; level < levels; ++level) {
                const xkb_keysym_t* syms = nullptr;
                if (xkb_keymap_key_get_syms_by_level(keymap, keycode, layout, level, &syms) > 0) {
                    return false;
                }
            }
        }
        return true;
    }

    // The modifiers a key sets while held, when that is all it does: keys that lock a modifier
    // (Caps Lock, Num Lock) or change the group give 0, so they are never pressed for a symbol.
    uint8_t modifiersSetWhileHeld(xcb_keycode_t keycode) const {
        xkb_state* state = xkb_state_new(keymap);
        xkb_state_update_key(state, keycode, XKB_KEY_DOWN);
        const auto depressed =
            static_cast<uint8_t>(xkb_state_serialize_mods(state, XKB_STATE_MODS_DEPRESSED));
        const bool onlyHeld = xkb_state_serialize_mods(state, XKB_STATE_MODS_LOCKED) == 0 &&
                              xkb_state_serialize_mods(state, XKB_STATE_MODS_LATCHED) == 0 &&
                              xkb_state_serialize_layout(state, XKB_STATE_LAYOUT_EFFECTIVE) == 0;
        xkb_state_unref(state);
        return onlyHeld ? depressed : 0;
    }

    // Keymap changes (a new layout, a remapped key) arrive as XKB events. Our own remapping of
    // spare keycodes was read back when it was made.
    void followKeymapChanges() {
        bool reload = false;
        while (xcb_generic_event_t* event = xcb_poll_for_event(connection)) {
            if ((event->response_type & 0x7f) == xkbEventBase) {
                const uint8_t xkbType = event->pad0;
                if (xkbType == XCB_XKB_NEW_KEYBOARD_NOTIFY) {
                    borrowed.clear(); // a new keymap replaced our borrowed symbols
                    remappedByUs.clear();
                    reload = true;
                } else if (xkbType == XCB_XKB_MAP_NOTIFY &&
                           !isOurRemapping(*reinterpret_cast<xcb_xkb_map_notify_event_t*>(event))) {
                    reload = true;
                }
            }
            std::free(event);
        }
        if (reload) {
            loadKeymap();
        }
    }

    bool isOurRemapping(const xcb_xkb_map_notify_event_t& change) {
        const auto ours = std::find(remappedByUs.begin(), remappedByUs.end(), change.firstKeySym);
        if (change.nKeySyms != 1 || ours == remappedByUs.end()) {
            return false;
        }
        remappedByUs.erase(ours);
        return true;
    }

    ServerState serverState() {
        const Reply<xcb_xkb_get_state_reply_t> reply(xcb_xkb_get_state_reply(
            connection, xcb_xkb_get_state(connection, static_cast<xcb_xkb_device_spec_t>(keyboard)),
            nullptr));
        if (!reply) {
            return {};
        }
        return {reply->baseMods, reply->latchedMods, reply->lockedMods, reply->group, reply->lockedGroup};
    }

    std::optional<xcb_keycode_t> modifierKeyFor(uint8_t mask) const {
        for (const auto& [keycode, mods] : modifierKeys) {
            if (mods == mask) {
                return keycode;
            }
        }
        return std::nullopt;
    }

    bool canPress(uint8_t modifiers) const {
        for (int bit = 0; bit < 8; ++bit) {
            if ((modifiers & (1 << bit)) != 0 && !modifierKeyFor(static_cast<uint8_t>(1 << bit))) {
                return false;
            }
        }
        return true;
    }

    // The cheapest key, modifier set and group that make the application see `keysym`: the
    // fewest modifiers changed from what is held now, the current group before others. Locked
    // and latched modifiers stay as they are, so Caps Lock is worked with, never toggled.
    std::optional<KeyChoice> choose(xkb_keysym_t keysym, const ServerState& state) const {
        std::optional<KeyChoice> best;
        const xkb_layout_index_t groups = xkb_keymap_num_layouts(keymap);
        for (xkb_layout_index_t offset = 0; offset < groups; ++offset) {
            const auto group = static_cast<uint8_t>((state.group + offset) % groups);
            for (int keycode = minKeycode; keycode <= maxKeycode; ++keycode) {
                consider(keysym, static_cast<xcb_keycode_t>(keycode), group, state, best);
            }
        }
        return best;
    }

    void consider(xkb_keysym_t keysym, xcb_keycode_t keycode, uint8_t group, const ServerState& state,
                  std::optional<KeyChoice>& best) const {
        xkb_state_update_mask(scratch, 0, 0, 0, 0, 0, group);
        const xkb_layout_index_t layout = xkb_state_key_get_layout(scratch, keycode);
        if (layout == XKB_LAYOUT_INVALID) {
            return;
        }
        bool hasKeysym = false;
        xkb_mod_mask_t levelModifiers = 0; // every modifier that picks a level on this key
        const xkb_level_index_t levels = xkb_keymap_num_levels_for_key(keymap, keycode, layout);
        for (xkb_level_index_t level = 0; level < levels; ++level) {
            xkb_mod_mask_t masks[16];
            const size_t count = xkb_keymap_key_get_mods_for_level(keymap, keycode, layout, level, masks, 16);
            for (size_t i = 0; i < count; ++i) {
                levelModifiers |= masks[i];
            }
            const xkb_keysym_t* syms = nullptr;
            hasKeysym |= xkb_keymap_key_get_syms_by_level(keymap, keycode, layout, level, &syms) == 1 &&
                         syms[0] == keysym;
        }
        if (!hasKeysym) {
            return;
        }
        // Every combination of those modifiers, the others left as they are: with Caps Lock on, a
        // lower-case letter takes Shift, which no single level's modifiers say.
        for (xkb_mod_mask_t subset = levelModifiers;; subset = (subset - 1) & levelModifiers) {
            const auto wanted = static_cast<uint8_t>((state.depressed & ~levelModifiers) | subset);
            xkb_state_update_mask(scratch, wanted, state.latched, state.locked, 0, 0, group);
            const int cost = std::popcount(static_cast<unsigned>(wanted ^ state.depressed)) +
                             (group == state.group ? 0 : 8);
            if ((!best || cost < best->cost) && canPress(static_cast<uint8_t>(wanted & ~state.depressed)) &&
                xkb_state_key_get_one_sym(scratch, keycode) == keysym) {
                best = KeyChoice{keycode, wanted, group, cost};
            }
            if (subset == 0) {
                break;
            }
        }
    }

    // Puts `keysym` on `keycode` (NoSymbol: nothing), with its upper-case form on the shifted level
    // for a letter so that Caps Lock and Shift act on it as on any letter key.
    void remap(xcb_keycode_t keycode, xkb_keysym_t keysym) {
        std::vector<xcb_keysym_t> syms(keysymsPerKeycode, XCB_NO_SYMBOL);
        syms[0] = keysym;
        if (keysymsPerKeycode > 1 && xkb_keysym_to_lower(keysym) != xkb_keysym_to_upper(keysym)) {
            syms[0] = xkb_keysym_to_lower(keysym);
            syms[1] = xkb_keysym_to_upper(keysym);
        }
        xcb_change_keyboard_mapping(connection, 1, keycode, keysymsPerKeycode, syms.data());
        remappedByUs.push_back(keycode);
    }

    bool isPressed(xcb_keycode_t keycode) const {
        return std::any_of(presses.begin(), presses.end(),
                           [&](const KeyPress& p) { return p.keycode == keycode; });
    }

    // Lends the next spare keycode in turn that is not held down to `keysym`, and reads the keymap
    // back. False when every spare keycode is held.
    bool borrowKeycode(xkb_keysym_t keysym) {
        for (size_t tried = 0; tried < spareKeycodes.size(); ++tried) {
            const xcb_keycode_t keycode = spareKeycodes[nextSpare];
            nextSpare = (nextSpare + 1) % spareKeycodes.size();
            if (!isPressed(keycode)) {
                borrowed.insert(keycode);
                remap(keycode, keysym);
                return loadKeymap();
            }
        }
        return false;
    }

    void restoreBorrowedKeycodes() {
        if (borrowed.empty()) {
            return;
        }
        for (const xcb_keycode_t keycode : borrowed) {
            if (!isPressed(keycode)) {
                remap(keycode, XCB_NO_SYMBOL);
            }
        }
        std::erase_if(borrowed, [&](xcb_keycode_t keycode) { return !isPressed(keycode); });
        loadKeymap();
    }

    // Presses `keycode` with exactly `modifiers` held and in `group`, and puts the modifiers and
    // group back as they were right after, so what the viewer holds is what stays held. Only keys
    // this injector holds can be let go for a moment: a key held on the local keyboard stays down.
    void pressWithModifiers(xcb_keycode_t keycode, uint8_t modifiers, uint8_t group,
                            const ServerState& state) {
        const auto unwanted = static_cast<uint8_t>(state.depressed & ~modifiers);
        const auto missing = static_cast<uint8_t>(modifiers & ~state.depressed);
        std::vector<xcb_keycode_t> lifted;
        std::vector<xcb_keycode_t> added;
        for (const KeyPress& press : presses) {
            const auto found = modifierKeys.find(press.keycode);
            if (!press.lifted && found != modifierKeys.end() && (found->second & unwanted) != 0 &&
                std::find(lifted.begin(), lifted.end(), press.keycode) == lifted.end()) {
                fakeKey(press.keycode, false);
                lifted.push_back(press.keycode);
            }
        }
        for (int bit = 0; bit < 8; ++bit) {
            if ((missing & (1 << bit)) != 0) {
                const xcb_keycode_t modifier = *modifierKeyFor(static_cast<uint8_t>(1 << bit));
                fakeKey(modifier, true);
                added.push_back(modifier);
            }
        }
        const xkb_layout_index_t groups = xkb_keymap_num_layouts(keymap);
        const bool switchGroup = group != state.group;
        if (switchGroup) {
            const auto locked =
                static_cast<uint8_t>((state.lockedGroup + groups + group - state.group) % groups);
            xcb_xkb_latch_lock_state(connection, static_cast<xcb_xkb_device_spec_t>(keyboard), 0, 0, 1,
                                     locked, 0, 0, 0);
        }
        fakeKey(keycode, true);
        if (switchGroup) {
            xcb_xkb_latch_lock_state(connection, static_cast<xcb_xkb_device_spec_t>(keyboard), 0, 0, 1,
                                     state.lockedGroup, 0, 0, 0);
        }
        std::for_each(added.rbegin(), added.rend(),
                      [&](xcb_keycode_t modifier) { fakeKey(modifier, false); });
        for (const xcb_keycode_t modifier : lifted) {
            fakeKey(modifier, true);
        }
    }

    std::vector<KeyPress*> heldAltGrPair() {
        KeyPress* control = nullptr;
        KeyPress* alt = nullptr;
        for (KeyPress& press : presses) {
            control = press.keysym == windowsAltGrControl ? &press : control;
            alt = press.keysym == windowsAltGrAlt ? &press : alt;
        }
        if (control == nullptr || alt == nullptr) {
            return {};
        }
        return {control, alt};
    }

    void setLifted(const std::vector<KeyPress*>& pair, bool lifted) {
        for (KeyPress* press : pair) {
            if (press->lifted != lifted) {
                fakeKey(press->keycode, !lifted);
                press->lifted = lifted;
            }
        }
    }

    // The keycode that typed `keysym`, pressed and not yet released; none when it cannot be typed.
    std::optional<xcb_keycode_t> pressSymbol(xkb_keysym_t keysym) {
        followKeymapChanges();
        ServerState state = serverState();

        // Control_L + Alt_R from a viewer on Windows is its AltGr: for a symbol on an AltGr level
        // the pair is let go on the server while the viewer holds it, and taken up again for any
        // other key (so Ctrl+Alt shortcuts still work).
        const std::vector<KeyPress*> pair = heldAltGrPair();
        if (!pair.empty()) {
            ServerState withoutPair = state;
            for (const KeyPress* press : pair) {
                const auto found = modifierKeys.find(press->keycode);
                withoutPair.depressed &=
                    static_cast<uint8_t>(found == modifierKeys.end() ? 0xff : ~found->second);
            }
            const auto choice = choose(keysym, withoutPair);
            const bool altGrLevel = choice && (choice->modifiers & levelThreeMask) != 0;
            setLifted(pair, altGrLevel);
            state = serverState();
        }

        std::optional<KeyChoice> choice = choose(keysym, state);
        if (!choice) {
            if (const auto standIn = modifierStandIn(keysym)) {
                choice = choose(*standIn, state);
            }
        }
        if (!choice && borrowKeycode(keysym)) {
            choice = choose(keysym, state);
        }
        if (!choice) {
            return std::nullopt;
        }
        pressWithModifiers(choice->keycode, choice->modifiers, choice->group, state);
        return choice->keycode;
    }

    void releaseKeycodeUnlessHeld(xcb_keycode_t keycode) {
        if (!isPressed(keycode)) {
            fakeKey(keycode, false);
        }
    }
};

X11InputInjector::X11InputInjector(const QByteArray& displayName) : d(std::make_unique<Private>()) {
    d->usable = d->connect(displayName);
}

X11InputInjector::~X11InputInjector() {
    if (d->usable) {
        releaseAll();
    }
}

bool X11InputInjector::isUsable() const {
    return d->usable;
}

void X11InputInjector::setKeyMode(KeyMode mode) {
    d->mode = mode;
}

void X11InputInjector::movePointer(int x, int y) {
    if (!d->usable) {
        return;
    }
    const auto coordinate = [](int value) {
        return static_cast<int16_t>(std::clamp(value, 0, 32767));
    };
    xcb_test_fake_input(d->connection, XCB_MOTION_NOTIFY, 0, XCB_CURRENT_TIME, d->root, coordinate(x),
                        coordinate(y), XCB_NONE);
    xcb_flush(d->connection);
}

void X11InputInjector::setButtonPressed(Button button, bool pressed) {
    if (!d->usable) {
        return;
    }
    const auto number = static_cast<uint8_t>(button);
    const auto held = std::find(d->buttons.begin(), d->buttons.end(), number);
    if (pressed) {
        if (held == d->buttons.end()) {
            d->buttons.push_back(number);
        }
        d->fakeButton(number, true);
    } else if (held != d->buttons.end()) {
        d->buttons.erase(held);
        d->fakeButton(number, false);
    }
    xcb_flush(d->connection);
}

void X11InputInjector::scroll(int horizontalSteps, int verticalSteps) {
    if (!d->usable) {
        return;
    }
    // X buttons 4 and 5 scroll up and down, 6 and 7 left and right, one click each.
    const int steps[2] = {horizontalSteps, verticalSteps};
    const uint8_t positiveButton[2] = {6, 4};
    for (int axis = 0; axis < 2; ++axis) {
        int& remainder = d->wheelRemainder[axis];
        if ((remainder > 0 && steps[axis] < 0) || (remainder < 0 && steps[axis] > 0)) {
            remainder = 0; // a turn the other way starts afresh
        }
        remainder += steps[axis];
        while (std::abs(remainder) >= wheelStepsPerClick) {
            const auto button = static_cast<uint8_t>(positiveButton[axis] + (remainder > 0 ? 0 : 1));
            d->fakeButton(button, true);
            d->fakeButton(button, false);
            remainder -= remainder > 0 ? wheelStepsPerClick : -wheelStepsPerClick;
        }
    }
    xcb_flush(d->connection);
}

bool X11InputInjector::pressKey(quint32 keysym, quint32 evdevCode) {
    if (!d->usable || (keysym == 0 && evdevCode == 0)) {
        return false;
    }
    std::optional<xcb_keycode_t> keycode;
    if (evdevCode != 0 && (d->mode == KeyMode::byPhysicalKey || keysym == 0)) {
        const int x11Keycode = static_cast<int>(evdevCode) + evdevToX11Keycode;
        if (x11Keycode > d->maxKeycode) {
            return false;
        }
        keycode = static_cast<xcb_keycode_t>(x11Keycode);
        d->fakeKey(*keycode, true);
    } else {
        keycode = d->pressSymbol(keysym);
    }
    if (keycode) {
        d->presses.push_back(KeyPress{keysym, evdevCode, *keycode, false});
    }
    xcb_flush(d->connection);
    return keycode.has_value();
}

void X11InputInjector::releaseKey(quint32 keysym, quint32 evdevCode) {
    if (!d->usable) {
        return;
    }
    const auto press = std::find_if(d->presses.rbegin(), d->presses.rend(), [&](const KeyPress& p) {
        return evdevCode != 0 ? p.evdevCode == evdevCode : p.keysym == keysym;
    });
    if (press == d->presses.rend()) {
        return;
    }
    const KeyPress released = *press;
    d->presses.erase(std::next(press).base());
    if (!released.lifted) {
        d->releaseKeycodeUnlessHeld(released.keycode);
    }
    xcb_flush(d->connection);
}

bool X11InputInjector::typeText(const QString& text) {
    if (!d->usable) {
        return false;
    }
    bool typedAll = true;
    for (const char32_t character : text.toUcs4()) {
        const xkb_keysym_t keysym = character == U'\n' ? XKB_KEY_Return : xkb_utf32_to_keysym(character);
        const auto keycode = keysym == XKB_KEY_NoSymbol ? std::nullopt : d->pressSymbol(keysym);
        if (keycode) {
            d->releaseKeycodeUnlessHeld(*keycode);
        } else {
            typedAll = false;
        }
    }
    xcb_flush(d->connection);
    return typedAll;
}

void X11InputInjector::releaseAll() {
    if (!d->usable) {
        return;
    }
    while (!d->presses.empty()) {
        const KeyPress last = d->presses.back();
        d->presses.pop_back();
        if (!last.lifted) {
            d->releaseKeycodeUnlessHeld(last.keycode);
        }
    }
    for (const uint8_t button : d->buttons) {
        d->fakeButton(button, false);
    }
    d->buttons.clear();
    d->wheelRemainder[0] = d->wheelRemainder[1] = 0;
    d->restoreBorrowedKeycodes();
    xcb_flush(d->connection);
}

} // namespace tellwyn
