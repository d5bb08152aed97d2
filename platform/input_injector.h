#pragma once

#include <QString>

namespace tellwyn {

// Puts a remote viewer's pointer and keyboard input into the desktop session. One injector per
// viewer: it remembers what it pressed, so that releaseAll() leaves nothing held down when the
// viewer goes, whatever order its events came in.
class InputInjector {
public:
    virtual ~InputInjector() = default;

    // bySymbol (the default) types the symbol the viewer's keyboard produced, whatever this
    // desktop's layout; byPhysicalKey presses the key at the same place on the keyboard, for games
    // and shortcuts. A key whose event lacks the chosen identity falls back to the other one.
    enum class KeyMode { bySymbol, byPhysicalKey };
    virtual void setKeyMode(KeyMode mode) = 0;

    // Absolute position in the desktop's coordinates.
    virtual void movePointer(int x, int y) = 0;

    enum class Button { left = 1, middle = 2, right = 3, back = 8, forward = 9 };
    // Releasing a button this injector did not press does nothing.
    virtual void setButtonPressed(Button button, bool pressed) = 0;

    // Wheel movement in fine steps of 1/120 of a click, positive up and to the left (as Qt's
    // angleDelta). Steps accumulate until they make whole clicks.
    virtual void scroll(int horizontalSteps, int verticalSteps) = 0;

    // A key by its symbol (an X keysym, 0 when unknown) and its position (a Linux evdev key code,
    // 0 when unknown). False when the key could not be pressed. A release matches the press with
    // the same evdev code, or without one the same keysym, and lets go of whatever that press held.
    virtual bool pressKey(quint32 keysym, quint32 evdevCode) = 0;
    virtual void releaseKey(quint32 keysym, quint32 evdevCode) = 0;

    // Types each character as its symbol, for characters the viewer's keyboard cannot send as
    // keys. False when some character could not be typed.
    virtual bool typeText(const QString& text) = 0;

    // Releases every key and button this injector holds.
    virtual void releaseAll() = 0;
};

} // namespace tellwyn
