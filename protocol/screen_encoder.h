#pragma once

#include "hlvp_screen_messages.h"
#include "screen_source.h"

#include <QList>
#include <QRect>
#include <memory>
#include <optional>
#include <vector>

namespace tellwyn {

// A vertical move of pixels the viewer already has: rows [top, top + rows) of the new picture
// equal rows [top + dy, top + dy + rows) of the old one.
struct VerticalShift {
    int dy = 0;
    int top = 0;
    int rows = 0;
};

// Looks for the largest vertical move between two pictures of one area (a scroll), by matching
// row hashes. None when no move explains enough changed rows.
std::optional<VerticalShift> findVerticalShift(const PixelView& before, const PixelView& after);

// Turns what changed on a screen into rectangles for one viewer. It keeps the picture the viewer
// has been sent (exact pixels) so that damage that changed nothing costs nothing, moves are sent
// as copies, and, in balanced mode, areas sent lossy are sent again exactly once they have been
// still for `refineAfterMs`. Not thread-safe; one per stream.
class ScreenDeltaEncoder {
public:
    enum class Mode { lossless, balanced };
    static constexpr int tileSize = 64;
    static constexpr qint64 refineAfterMs = 1000;
    static constexpr int jpegQuality = 75;
    static constexpr int zstdLevel = 1;

    ScreenDeltaEncoder(int width, int height, Mode mode);
    ~ScreenDeltaEncoder();
    ScreenDeltaEncoder(const ScreenDeltaEncoder&) = delete;
    ScreenDeltaEncoder& operator=(const ScreenDeltaEncoder&) = delete;

    // The viewer's picture is unknown (start, new size): the next frame sends all of it.
    void reset(int width, int height);
    // Pixels in `area` (stream pixels) may have changed.
    void damage(const QRect& area);
    bool hasDamage() const;
    // When an area sent lossy becomes due to be sent exactly; none when nothing is lossy.
    std::optional<qint64> refinementDueAt() const;
    // The rectangles that bring the viewer's picture to `screen` (the stream's pixels, same size),
    // in the order they must be applied; empty when nothing changed. `nowMs`: a steady clock.
    QList<HLVPScreenRect> encode(const PixelView& screen, qint64 nowMs);

    int width() const { return m_sent.width; }
    int height() const { return m_sent.height; }

private:
    enum class TileState : quint8 { unknown, exact, lossy };
    struct Tile {
        TileState state = TileState::unknown;
        bool dirty = true;
        qint64 lossySince = 0;
    };
    enum class Kind { none, solid, palette, zstd, jpeg };
    struct Plan {
        Kind kind = Kind::none;
        quint32 color = 0;
        std::vector<quint32> colors;
    };

    Tile& tileAt(int tx, int ty) { return m_tiles[static_cast<std::size_t>(ty * m_tilesX + tx)]; }
    QRect tileRect(int tx, int ty) const;
    void detectCopies(const PixelView& screen, qint64 nowMs, QList<HLVPScreenRect>& out);
    Plan plan(const PixelView& tile, bool refining) const;
    void emitRun(const PixelView& screen, const QRect& area, const Plan& plan, QList<HLVPScreenRect>& out);
    void store(const PixelView& screen, const QRect& area);

    Mode m_mode;
    PixelBuffer m_sent; // exact pixels of what the viewer has been sent
    int m_tilesX = 0;
    int m_tilesY = 0;
    std::vector<Tile> m_tiles;
    QList<QRect> m_damage; // since the last frame, for finding moves
    struct Codecs;
    std::unique_ptr<Codecs> m_codecs;
};

// Applies one rectangle of a frame to a viewer's picture. False, with the reason, when the
// rectangle does not fit the picture or its data does not decode.
bool applyScreenRect(PixelBuffer& picture, const HLVPScreenRect& rect, QString* error = nullptr);

} // namespace tellwyn
