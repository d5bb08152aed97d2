#pragma once

#include <QByteArray>
#include <QPoint>
#include <QRect>
#include <QSize>
#include <QString>
#include <cstdint>
#include <memory>
#include <vector>

namespace tellwyn {

// The viewer's copy of the agent's screen: the picture as the stream has painted it so far and
// the cursor, which travels apart from the picture. Pixels are 0xFFRRGGBB, rows `width` apart,
// so a window can show them without a copy. No Qt Gui here: `tellwyn screenshot` uses it too.
class RemoteScreen {
public:
    RemoteScreen();
    ~RemoteScreen();
    RemoteScreen(const RemoteScreen&) = delete;
    RemoteScreen& operator=(const RemoteScreen&) = delete;

    // A new geometry: the picture starts black and waits for the agent to paint it.
    void resize(QSize size);
    QSize size() const { return m_size; }
    const std::uint32_t* pixels() const { return m_pixels.data(); }
    std::uint32_t pixel(int x, int y) const {
        return m_pixels[std::size_t(y) * std::size_t(m_size.width()) + std::size_t(x)];
    }

    // The painting operations of a frame update. Each refuses (false, with the reason in
    // `error`) a rectangle outside the picture or data of the wrong size, and leaves the
    // picture as it was.
    bool fill(const QRect& rect, std::uint32_t rgb, QString* error);
    // Moves pixels the viewer already has, as a scroll does; source and destination may overlap.
    bool copy(const QRect& source, QPoint destination, QString* error);
    // Colour indices into `palette` (one byte each, row by row), compressed with zstd.
    bool paintPalette(const QRect& rect, const std::vector<std::uint32_t>& palette,
                      const QByteArray& compressed, QString* error);
    // R, G, B bytes row by row, compressed with zstd.
    bool paintZstd(const QRect& rect, const QByteArray& compressed, QString* error);
    // A JPEG picture exactly the size of `rect`.
    bool paintJpeg(const QRect& rect, const QByteArray& jpeg, QString* error);

    // The cursor: its picture (0xAARRGGBB, premultiplied alpha as X hands it out), hot spot and
    // where the agent's pointer is.
    struct Cursor {
        QSize size;
        QPoint hotSpot;
        std::vector<std::uint32_t> pixels;
        QPoint position;
        bool visible = false;
    };
    bool setCursorShape(QSize size, QPoint hotSpot, const QByteArray& argb, QString* error);
    void setCursorPosition(QPoint position, bool visible);
    const Cursor& cursor() const { return m_cursor; }

private:
    bool checkRect(const QRect& rect, QString* error) const;
    // Decompresses exactly `size` bytes into the scratch buffer.
    const unsigned char* inflate(const QRect& rect, const QByteArray& compressed, std::size_t size,
                                 QString* error);
    std::uint32_t* row(int y) { return m_pixels.data() + std::size_t(y) * std::size_t(m_size.width()); }

    struct Decoders;
    std::unique_ptr<Decoders> m_decoders;
    QSize m_size;
    std::vector<std::uint32_t> m_pixels;
    Cursor m_cursor;
};

} // namespace tellwyn
