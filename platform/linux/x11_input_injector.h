#pragma once

#include "input_injector.h"

#include <QByteArray>
#include <memory>

namespace tellwyn {

// Input injection on an X11 display with XTEST, the keyboard read through XKB: keysyms are found
// on the current layout (shift and AltGr levels, other groups), missing ones are typed on a
// borrowed spare keycode, and lock keys are never pressed. Keymap changes are followed. Used from
// one thread; every call is sent to the server before it returns.
class X11InputInjector final : public InputInjector {
public:
    // `displayName` empty: the display named by DISPLAY.
    explicit X11InputInjector(const QByteArray& displayName = {});
    ~X11InputInjector() override;

    // False when the display or its XTEST or XKB extension is missing; then nothing is injected.
    bool isUsable() const;

    void setKeyMode(KeyMode mode) override;
    void movePointer(int x, int y) override;
    void setButtonPressed(Button button, bool pressed) override;
    void scroll(int horizontalSteps, int verticalSteps) override;
    bool pressKey(quint32 keysym, quint32 evdevCode) override;
    void releaseKey(quint32 keysym, quint32 evdevCode) override;
    bool typeText(const QString& text) override;
    void releaseAll() override;

private:
    struct Private;
    std::unique_ptr<Private> d;
};

} // namespace tellwyn
