#pragma once

#include "hlvp_screen_messages.h"

#include <QByteArray>
#include <QList>
#include <QRect>
#include <QString>
#include <functional>
#include <optional>
#include <vector>

namespace tellwyn {

// Pixels as 0x00RRGGBB words, row by row, `stride` words apart.
struct PixelView {
    const quint32* data = nullptr;
    int stride = 0;
    int width = 0;
    int height = 0;
    const quint32* row(int y) const { return data + qsizetype(y) * stride; }
    PixelView sub(const QRect& area) const {
        return {row(area.y()) + area.x(), stride, area.width(), area.height()};
    }
};

// A picture the size of the desktop (or a part of it), owned.
struct PixelBuffer {
    int width = 0;
    int height = 0;
    std::vector<quint32> pixels;

    void resize(int w, int h) {
        width = w;
        height = h;
        pixels.assign(std::size_t(w) * std::size_t(h), 0);
    }
    quint32* row(int y) { return pixels.data() + qsizetype(y) * width; }
    const quint32* row(int y) const { return pixels.data() + qsizetype(y) * width; }
    PixelView view() const { return {pixels.data(), width, width, height}; }
};

// The desktop's size and its monitors, in desktop pixels.
struct ScreenLayout {
    int width = 0;
    int height = 0;
    QList<HLVPScreenMonitor> monitors; // primary first
    friend bool operator==(const ScreenLayout&, const ScreenLayout&) = default;
};

struct CursorImage {
    quint32 serial = 0;
    quint32 width = 0;
    quint32 height = 0;
    quint32 hotX = 0;
    quint32 hotY = 0;
    QByteArray pixels; // A, R, G, B a pixel, premultiplied
};

// Where the pixels of a screen stream come from: one desktop session's display. Implemented per
// display system (X11 now; a portal/PipeWire capture later). An instance is made, started, used
// and destroyed on one thread, and reports on that thread's event loop. It watches the display
// only between start() and its destruction.
class ScreenSource {
public:
    struct Listener {
        std::function<void(const QRect& area)> damaged; // pixels in `area` may have changed
        std::function<void()> layoutChanged;            // size or monitors changed
        std::function<void(int x, int y)> pointerMoved; // desktop pixels
        std::function<void()> cursorChanged;            // a new cursor shape
        std::function<void(const QString& why)> lost;   // the display went away
    };
    struct Failure {
        QString code;    // an error code of the protocol: "noDisplay", "screenStreamingUnsupported"
        QString message; // for the user
    };

    virtual ~ScreenSource() = default;
    virtual std::optional<Failure> start(Listener listener) = 0;
    virtual ScreenLayout layout() const = 0;
    // Copies `area` (desktop pixels, inside the layout) into `into`, a desktop-sized buffer, at
    // the same place. False when the display could not be read.
    virtual bool read(const QRect& area, PixelBuffer& into) = 0;
    virtual CursorImage cursor() = 0;
    virtual std::optional<QPoint> pointer() = 0;
};

} // namespace tellwyn
