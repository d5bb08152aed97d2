#include "screen_encoder.h"

#include <QHash>
#include <algorithm>
#include <array>
#include <cstring>
#include <turbojpeg.h>
#include <unordered_map>
#include <zstd.h>

using namespace Qt::StringLiterals;

namespace tellwyn {

namespace {

constexpr std::size_t u(int value) {
    return static_cast<std::size_t>(value);
}

constexpr int maxPaletteColors = 16;
// More colours than this in a tile: a picture, which JPEG codes far smaller than zstd.
constexpr int photoColors = 256;
// Moves smaller than this many rows are cheaper sent as pixels.
constexpr int minimumShiftRows = 16;
constexpr int minimumShiftVotes = 4;

quint64 hashRow(const quint32* row, int width) {
    quint64 hash = 0x9E3779B97F4A7C15ULL ^ quint64(width);
    for (int x = 0; x < width; ++x) {
        hash = (hash ^ row[x]) * 0x100000001B3ULL;
        hash ^= hash >> 29;
    }
    return hash;
}

bool rowsEqual(const PixelView& a, const PixelView& b, const QRect& area) {
    const std::size_t bytes = std::size_t(area.width()) * sizeof(quint32);
    for (int y = area.top(); y <= area.bottom(); ++y) {
        if (std::memcmp(a.row(y) + area.x(), b.row(y) + area.x(), bytes) != 0) {
            return false;
        }
    }
    return true;
}

// Distinct colours of `tile`, counting stops past `limit`.
std::vector<quint32> distinctColors(const PixelView& tile, int limit) {
    std::vector<quint32> colors;
    constexpr std::size_t slots = 1024;
    std::array<quint32, slots> table;
    std::array<bool, slots> used{};
    for (int y = 0; y < tile.height; ++y) {
        const quint32* row = tile.row(y);
        quint32 previous = ~row[0];
        for (int x = 0; x < tile.width; ++x) {
            const quint32 c = row[x];
            if (c == previous) {
                continue;
            }
            previous = c;
            std::size_t slot = (c * 2654435761U) % slots;
            while (used[slot] && table[slot] != c) {
                slot = (slot + 1) % slots;
            }
            if (!used[slot]) {
                used[slot] = true;
                table[slot] = c;
                colors.push_back(c);
                if (int(colors.size()) > limit) {
                    return colors;
                }
            }
        }
    }
    return colors;
}

} // namespace

struct ScreenDeltaEncoder::Codecs {
    ZSTD_CCtx* zstd = ZSTD_createCCtx();
    tjhandle jpeg = tjInitCompress();
    std::vector<quint8> scratch;
    ~Codecs() {
        ZSTD_freeCCtx(zstd);
        tjDestroy(jpeg);
    }
    QByteArray compress(const quint8* bytes, std::size_t size) {
        QByteArray out(qsizetype(ZSTD_compressBound(size)), Qt::Uninitialized);
        const std::size_t written =
            ZSTD_compressCCtx(zstd, out.data(), std::size_t(out.size()), bytes, size, zstdLevel);
        out.resize(ZSTD_isError(written) != 0 ? 0 : qsizetype(written));
        return out;
    }
};

std::optional<VerticalShift> findVerticalShift(const PixelView& before, const PixelView& after) {
    const int height = std::min(before.height, after.height);
    const int width = std::min(before.width, after.width);
    if (height < minimumShiftRows || width <= 0) {
        return std::nullopt;
    }
    QList<quint64> old(height);
    QList<quint64> now(height);
    std::unordered_map<quint64, int> oldRows; // hash -> row, or -1 when it repeats
    for (int y = 0; y < height; ++y) {
        old[y] = hashRow(before.row(y), width);
        now[y] = hashRow(after.row(y), width);
        const auto [it, inserted] = oldRows.try_emplace(old[y], y);
        if (!inserted) {
            it->second = -1;
        }
    }
    // Every changed row whose old content appears once elsewhere votes for that distance.
    QHash<int, int> votes;
    for (int y = 0; y < height; ++y) {
        if (now[y] == old[y]) {
            continue;
        }
        const auto found = oldRows.find(now[y]);
        if (found != oldRows.end() && found->second >= 0) {
            ++votes[found->second - y];
        }
    }
    int bestDy = 0;
    int bestVotes = 0;
    for (auto it = votes.cbegin(); it != votes.cend(); ++it) {
        if (it.value() > bestVotes || (it.value() == bestVotes && std::abs(it.key()) < std::abs(bestDy))) {
            bestDy = it.key();
            bestVotes = it.value();
        }
    }
    if (bestVotes < minimumShiftVotes) {
        return std::nullopt;
    }
    // The longest run of rows the move explains.
    VerticalShift best{bestDy, 0, 0};
    int runStart = -1;
    for (int y = 0; y <= height; ++y) {
        const int source = y + bestDy;
        const bool matches = y < height && source >= 0 && source < height && now[y] == old[source];
        if (matches && runStart < 0) {
            runStart = y;
        } else if (!matches && runStart >= 0) {
            if (y - runStart > best.rows) {
                best.top = runStart;
                best.rows = y - runStart;
            }
            runStart = -1;
        }
    }
    if (best.rows < minimumShiftRows) {
        return std::nullopt;
    }
    return best;
}

ScreenDeltaEncoder::ScreenDeltaEncoder(int width, int height, Mode mode)
    : m_mode(mode), m_codecs(std::make_unique<Codecs>()) {
    reset(width, height);
}

ScreenDeltaEncoder::~ScreenDeltaEncoder() = default;

void ScreenDeltaEncoder::reset(int width, int height) {
    m_sent.resize(width, height);
    m_tilesX = (width + tileSize - 1) / tileSize;
    m_tilesY = (height + tileSize - 1) / tileSize;
    m_tiles.assign(std::size_t(m_tilesX) * std::size_t(m_tilesY), Tile{});
    m_damage.clear();
}

QRect ScreenDeltaEncoder::tileRect(int tx, int ty) const {
    return QRect(tx * tileSize, ty * tileSize, tileSize, tileSize)
        .intersected(QRect(0, 0, m_sent.width, m_sent.height));
}

void ScreenDeltaEncoder::damage(const QRect& area) {
    const QRect clipped = area.intersected(QRect(0, 0, m_sent.width, m_sent.height));
    if (clipped.isEmpty()) {
        return;
    }
    for (int ty = clipped.top() / tileSize; ty <= clipped.bottom() / tileSize; ++ty) {
        for (int tx = clipped.left() / tileSize; tx <= clipped.right() / tileSize; ++tx) {
            tileAt(tx, ty).dirty = true;
        }
    }
    // A few separate areas are kept apart for finding moves; many become their bounding box.
    constexpr qsizetype maxAreas = 16;
    for (QRect& known : m_damage) {
        if (known.contains(clipped)) {
            return;
        }
    }
    if (m_damage.size() >= maxAreas) {
        QRect all = clipped;
        for (const QRect& known : std::as_const(m_damage)) {
            all = all.united(known);
        }
        m_damage = {all};
        return;
    }
    m_damage.append(clipped);
}

bool ScreenDeltaEncoder::hasDamage() const {
    return std::any_of(m_tiles.begin(), m_tiles.end(), [](const Tile& tile) { return tile.dirty; });
}

std::optional<qint64> ScreenDeltaEncoder::refinementDueAt() const {
    std::optional<qint64> due;
    for (const Tile& tile : m_tiles) {
        if (tile.state == TileState::lossy) {
            const qint64 at = tile.lossySince + refineAfterMs;
            due = due ? std::min(*due, at) : at;
        }
    }
    return due;
}

void ScreenDeltaEncoder::detectCopies(const PixelView& screen, qint64 nowMs, QList<HLVPScreenRect>& out) {
    const PixelView sent = m_sent.view();
    for (const QRect& area : std::as_const(m_damage)) {
        if (area.width() < tileSize || area.height() < 2 * minimumShiftRows) {
            continue;
        }
        // Only where the viewer's picture is known can it copy from.
        bool known = true;
        for (int ty = area.top() / tileSize; known && ty <= area.bottom() / tileSize; ++ty) {
            for (int tx = area.left() / tileSize; tx <= area.right() / tileSize; ++tx) {
                known = known && tileAt(tx, ty).state != TileState::unknown;
            }
        }
        if (!known) {
            continue;
        }
        const auto shift = findVerticalShift(sent.sub(area), screen.sub(area));
        if (!shift) {
            continue;
        }
        const int top = area.y() + shift->top;
        const int sourceTop = top + shift->dy;
        out.append(HLVPScreenRect{quint32(area.x()),
                                  quint32(top),
                                  quint32(area.width()),
                                  quint32(shift->rows),
                                  HLVPScreenRect::Encoding::copy,
                                  0,
                                  quint32(area.x()),
                                  quint32(sourceTop),
                                  {},
                                  {}});
        // The viewer's picture moves the same way.
        const std::size_t bytes = std::size_t(area.width()) * sizeof(quint32);
        std::vector<quint32> moved(u(area.width()) * u(shift->rows));
        bool sourceLossy = false;
        for (int r = 0; r < shift->rows; ++r) {
            std::memcpy(moved.data() + u(r) * u(area.width()), m_sent.row(sourceTop + r) + area.x(), bytes);
        }
        for (int ty = sourceTop / tileSize; ty <= (sourceTop + shift->rows - 1) / tileSize; ++ty) {
            for (int tx = area.left() / tileSize; tx <= area.right() / tileSize; ++tx) {
                sourceLossy = sourceLossy || tileAt(tx, ty).state == TileState::lossy;
            }
        }
        for (int r = 0; r < shift->rows; ++r) {
            std::memcpy(m_sent.row(top + r) + area.x(), moved.data() + u(r) * u(area.width()), bytes);
        }
        if (sourceLossy) {
            for (int ty = top / tileSize; ty <= (top + shift->rows - 1) / tileSize; ++ty) {
                for (int tx = area.left() / tileSize; tx <= area.right() / tileSize; ++tx) {
                    tileAt(tx, ty).state = TileState::lossy;
                    tileAt(tx, ty).lossySince = nowMs;
                }
            }
        }
    }
}

ScreenDeltaEncoder::Plan ScreenDeltaEncoder::plan(const PixelView& tile, bool refining) const {
    const int limit = m_mode == Mode::balanced && !refining ? photoColors : maxPaletteColors;
    Plan result;
    result.colors = distinctColors(tile, limit);
    const int count = int(result.colors.size());
    if (count == 1) {
        result.kind = Kind::solid;
        result.color = result.colors.front();
    } else if (count <= maxPaletteColors) {
        result.kind = Kind::palette;
    } else if (count > photoColors) {
        result.kind = Kind::jpeg;
    } else {
        result.kind = Kind::zstd;
    }
    return result;
}

void ScreenDeltaEncoder::store(const PixelView& screen, const QRect& area) {
    const std::size_t bytes = std::size_t(area.width()) * sizeof(quint32);
    for (int y = area.top(); y <= area.bottom(); ++y) {
        std::memcpy(m_sent.row(y) + area.x(), screen.row(y) + area.x(), bytes);
    }
}

void ScreenDeltaEncoder::emitRun(const PixelView& screen, const QRect& area, const Plan& plan,
                                 QList<HLVPScreenRect>& out) {
    HLVPScreenRect rect{quint32(area.x()),
                        quint32(area.y()),
                        quint32(area.width()),
                        quint32(area.height()),
                        HLVPScreenRect::Encoding::solid,
                        0,
                        0,
                        0,
                        {},
                        {}};
    const PixelView pixels = screen.sub(area);
    switch (plan.kind) {
    case Kind::none:
        return;
    case Kind::solid:
        rect.color = plan.color & 0xFFFFFFU;
        break;
    case Kind::palette: {
        rect.encoding = HLVPScreenRect::Encoding::palette;
        QHash<quint32, quint8> index;
        for (const quint32 c : plan.colors) {
            index.insert(c, quint8(rect.palette.size() / 3));
            rect.palette.append(char((c >> 16) & 0xFF)).append(char((c >> 8) & 0xFF)).append(char(c & 0xFF));
        }
        auto& indices = m_codecs->scratch;
        indices.resize(std::size_t(area.width()) * std::size_t(area.height()));
        std::size_t at = 0;
        for (int y = 0; y < pixels.height; ++y) {
            const quint32* row = pixels.row(y);
            for (int x = 0; x < pixels.width; ++x) {
                indices[at++] = index.value(row[x]);
            }
        }
        rect.data = m_codecs->compress(indices.data(), indices.size());
        break;
    }
    case Kind::zstd: {
        rect.encoding = HLVPScreenRect::Encoding::zstd;
        auto& rgb = m_codecs->scratch;
        rgb.resize(std::size_t(area.width()) * std::size_t(area.height()) * 3);
        std::size_t at = 0;
        for (int y = 0; y < pixels.height; ++y) {
            const quint32* row = pixels.row(y);
            for (int x = 0; x < pixels.width; ++x) {
                rgb[at++] = quint8(row[x] >> 16);
                rgb[at++] = quint8(row[x] >> 8);
                rgb[at++] = quint8(row[x]);
            }
        }
        rect.data = m_codecs->compress(rgb.data(), rgb.size());
        break;
    }
    case Kind::jpeg: {
        rect.encoding = HLVPScreenRect::Encoding::jpeg;
        unsigned char* jpeg = nullptr;
        unsigned long size = 0;
        // 0x00RRGGBB words are B, G, R, X bytes in memory.
        if (tjCompress2(m_codecs->jpeg, reinterpret_cast<const unsigned char*>(pixels.data), pixels.width,
                        pixels.stride * int(sizeof(quint32)), pixels.height, TJPF_BGRX, &jpeg, &size,
                        TJSAMP_420, jpegQuality, TJFLAG_FASTDCT) != 0) {
            tjFree(jpeg);
            // Cannot happen with valid sizes; the exact pixels are always a way out.
            emitRun(screen, area, Plan{Kind::zstd, 0, {}}, out);
            return;
        }
        rect.data = QByteArray(reinterpret_cast<const char*>(jpeg), qsizetype(size));
        tjFree(jpeg);
        break;
    }
    }
    out.append(std::move(rect));
}

QList<HLVPScreenRect> ScreenDeltaEncoder::encode(const PixelView& screen, qint64 nowMs) {
    QList<HLVPScreenRect> out;
    if (screen.width != m_sent.width || screen.height != m_sent.height) {
        reset(screen.width, screen.height);
    }
    detectCopies(screen, nowMs, out);
    m_damage.clear();
    const PixelView sent = m_sent.view();

    for (int ty = 0; ty < m_tilesY; ++ty) {
        // Neighbouring tiles coded alike become one rectangle: fewer headers, better compression.
        QRect run;
        Plan runPlan;
        const auto flush = [&] {
            if (!run.isEmpty()) {
                emitRun(screen, run, runPlan, out);
                store(screen, run);
            }
            run = QRect();
        };
        for (int tx = 0; tx < m_tilesX; ++tx) {
            Tile& tile = tileAt(tx, ty);
            const QRect area = tileRect(tx, ty);
            const bool refining = tile.state == TileState::lossy && nowMs - tile.lossySince >= refineAfterMs;
            if (!tile.dirty && !refining) {
                flush();
                continue;
            }
            tile.dirty = false;
            const bool same = tile.state != TileState::unknown && rowsEqual(screen, sent, area);
            if (same && !refining) {
                flush();
                continue;
            }
            Plan tilePlan = plan(screen.sub(area), refining);
            const bool joins = !run.isEmpty() && run.right() + 1 == area.left() &&
                               runPlan.kind == tilePlan.kind &&
                               ((tilePlan.kind == Kind::solid && runPlan.color == tilePlan.color) ||
                                tilePlan.kind == Kind::zstd || tilePlan.kind == Kind::jpeg);
            if (joins) {
                run = run.united(area);
            } else {
                flush();
                run = area;
                runPlan = std::move(tilePlan);
            }
            tile.state = runPlan.kind == Kind::jpeg ? TileState::lossy : TileState::exact;
            tile.lossySince = nowMs;
        }
        flush();
    }
    return out;
}

bool applyScreenRect(PixelBuffer& picture, const HLVPScreenRect& rect, QString* error) {
    const auto fail = [error](const QString& why) {
        if (error != nullptr) {
            *error = why;
        }
        return false;
    };
    const QRect area(int(rect.x), int(rect.y), int(rect.w), int(rect.h));
    if (rect.w == 0 || rect.h == 0 || qint64(rect.x) + rect.w > picture.width ||
        qint64(rect.y) + rect.h > picture.height) {
        return fail(u"the rectangle is outside the picture"_s);
    }
    const std::size_t pixels = std::size_t(rect.w) * rect.h;
    const auto decompress = [&](std::size_t expected) -> std::optional<std::vector<quint8>> {
        std::vector<quint8> bytes(expected);
        const std::size_t size =
            ZSTD_decompress(bytes.data(), expected, rect.data.constData(), std::size_t(rect.data.size()));
        if (ZSTD_isError(size) != 0 || size != expected) {
            return std::nullopt;
        }
        return bytes;
    };
    switch (rect.encoding) {
    case HLVPScreenRect::Encoding::solid:
        for (int y = area.top(); y <= area.bottom(); ++y) {
            std::fill_n(picture.row(y) + area.x(), area.width(), rect.color & 0xFFFFFFU);
        }
        return true;
    case HLVPScreenRect::Encoding::copy: {
        if (qint64(rect.srcX) + rect.w > picture.width || qint64(rect.srcY) + rect.h > picture.height) {
            return fail(u"the copy's source is outside the picture"_s);
        }
        std::vector<quint32> copy(pixels);
        for (int r = 0; r < area.height(); ++r) {
            std::memcpy(copy.data() + std::size_t(r) * rect.w, picture.row(int(rect.srcY) + r) + rect.srcX,
                        rect.w * sizeof(quint32));
        }
        for (int r = 0; r < area.height(); ++r) {
            std::memcpy(picture.row(area.y() + r) + area.x(), copy.data() + std::size_t(r) * rect.w,
                        rect.w * sizeof(quint32));
        }
        return true;
    }
    case HLVPScreenRect::Encoding::zstd: {
        const auto rgb = decompress(pixels * 3);
        if (!rgb) {
            return fail(u"the zstd data is not w × h pixels"_s);
        }
        std::size_t at = 0;
        for (int y = area.top(); y <= area.bottom(); ++y) {
            quint32* row = picture.row(y) + area.x();
            for (int x = 0; x < area.width(); ++x, at += 3) {
                row[x] = (quint32((*rgb)[at]) << 16) | (quint32((*rgb)[at + 1]) << 8) | (*rgb)[at + 2];
            }
        }
        return true;
    }
    case HLVPScreenRect::Encoding::palette: {
        const auto indices = decompress(pixels);
        const qsizetype colors = rect.palette.size() / 3;
        if (!indices) {
            return fail(u"the palette data is not w × h indices"_s);
        }
        const auto* palette = reinterpret_cast<const quint8*>(rect.palette.constData());
        std::size_t at = 0;
        for (int y = area.top(); y <= area.bottom(); ++y) {
            quint32* row = picture.row(y) + area.x();
            for (int x = 0; x < area.width(); ++x) {
                const quint8 i = (*indices)[at++];
                if (i >= colors) {
                    return fail(u"a palette index is out of range"_s);
                }
                row[x] =
                    (quint32(palette[i * 3]) << 16) | (quint32(palette[i * 3 + 1]) << 8) | palette[i * 3 + 2];
            }
        }
        return true;
    }
    case HLVPScreenRect::Encoding::jpeg: {
        tjhandle decoder = tjInitDecompress();
        int width = 0;
        int height = 0;
        int subsampling = 0;
        int colorspace = 0;
        const auto* data = reinterpret_cast<const unsigned char*>(rect.data.constData());
        bool ok = tjDecompressHeader3(decoder, data, static_cast<unsigned long>(rect.data.size()), &width,
                                      &height, &subsampling, &colorspace) == 0 &&
                  width == area.width() && height == area.height();
        ok = ok && tjDecompress2(decoder, data, static_cast<unsigned long>(rect.data.size()),
                                 reinterpret_cast<unsigned char*>(picture.row(area.y()) + area.x()), width,
                                 picture.width * int(sizeof(quint32)), height, TJPF_BGRX, 0) == 0;
        tjDestroy(decoder);
        if (!ok) {
            return fail(u"the JPEG data is not a w × h picture"_s);
        }
        for (int y = area.top(); y <= area.bottom(); ++y) {
            quint32* row = picture.row(y) + area.x();
            for (int x = 0; x < area.width(); ++x) {
                row[x] &= 0xFFFFFFU;
            }
        }
        return true;
    }
    }
    return fail(u"unknown encoding"_s);
}

} // namespace tellwyn
