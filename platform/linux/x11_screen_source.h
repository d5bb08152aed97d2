#pragma once

#include "screen_source.h"

#include <memory>

namespace tellwyn {

// The X display named by DISPLAY as a screen source: pixels through MIT-SHM (GetImage when the
// server cannot share memory with us), what changed from DAMAGE, the cursor from XFixes, pointer
// motion from XInput 2 raw events, the layout from RandR. Nothing is polled: while the screen is
// still, no event arrives and nothing runs.
class X11ScreenSource final : public ScreenSource {
public:
    X11ScreenSource();
    ~X11ScreenSource() override;

    std::optional<Failure> start(Listener listener) override;
    ScreenLayout layout() const override;
    bool read(const QRect& area, PixelBuffer& into) override;
    CursorImage cursor() override;
    std::optional<QPoint> pointer() override;

private:
    struct State;
    std::unique_ptr<State> d;
};

} // namespace tellwyn
