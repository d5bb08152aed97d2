#include "remote_screen.h"

#include <algorithm>
#include <cstring>
#include <turbojpeg.h>
#include <zstd.h>

using namespace Qt::StringLiterals;

namespace tellwyn {

namespace {
constexpr std::uint32_t opaque = 0xFF000000u;
// A cursor larger than this is not a cursor.
constexpr int largestCursor = 256;
} // namespace

// One zstd and one JPEG context for the life of the stream, instead of one per tile.
struct RemoteScreen::Decoders {
    ZSTD_DCtx* zstd = ZSTD_createDCtx();
    tjhandle jpeg = tjInitDecompress();
    std::vector<unsigned char> scratch;
    ~Decoders() {
        ZSTD_freeDCtx(zstd);
        if (jpeg != nullptr) {
            tjDestroy(jpeg);
        }
    }
};

RemoteScreen::RemoteScreen() : m_decoders(std::make_unique<Decoders>()) {
}
RemoteScreen::~RemoteScreen() = default;

void RemoteScreen::resize(QSize size) {
    m_size = size;
    m_pixels.assign(std::size_t(size.width()) * std::size_t(size.height()), opaque);
}

bool RemoteScreen::checkRect(const QRect& rect, QString* error) const {
    if (rect.isEmpty() || !QRect(QPoint(0, 0), m_size).contains(rect)) {
        *error = u"rectangle %1x%2+%3+%4 lies outside the %5x%6 screen"_s.arg(rect.width())
                     .arg(rect.height())
                     .arg(rect.x())
                     .arg(rect.y())
                     .arg(m_size.width())
                     .arg(m_size.height());
        return false;
    }
    return true;
}

bool RemoteScreen::fill(const QRect& rect, std::uint32_t rgb, QString* error) {
    if (!checkRect(rect, error)) {
        return false;
    }
    for (int y = rect.top(); y <= rect.bottom(); ++y) {
        std::fill_n(row(y) + rect.x(), rect.width(), opaque | rgb);
    }
    return true;
}

bool RemoteScreen::copy(const QRect& source, QPoint destination, QString* error) {
    const QRect target(destination, source.size());
    if (!checkRect(source, error) || !checkRect(target, error)) {
        return false;
    }
    // Rows go in the order that reads each source row before it is overwritten.
    const bool upward = destination.y() <= source.y();
    for (int i = 0; i < source.height(); ++i) {
        const int offset = upward ? i : source.height() - 1 - i;
        std::memmove(row(destination.y() + offset) + destination.x(), row(source.y() + offset) + source.x(),
                     std::size_t(source.width()) * sizeof(std::uint32_t));
    }
    return true;
}

const unsigned char* RemoteScreen::inflate(const QRect& rect, const QByteArray& compressed, std::size_t size,
                                           QString* error) {
    std::vector<unsigned char>& out = m_decoders->scratch;
    out.resize(size + 1); // one spare byte, so that too much data shows as such
    const std::size_t got = ZSTD_decompressDCtx(m_decoders->zstd, out.data(), out.size(),
                                                compressed.constData(), std::size_t(compressed.size()));
    if (ZSTD_isError(got) || got != size) {
        *error =
            u"zstd data that does not hold a %1x%2 rectangle%3"_s.arg(rect.width())
                .arg(rect.height())
                .arg(ZSTD_isError(got) ? u": "_s + QString::fromUtf8(ZSTD_getErrorName(got)) : QString());
        return nullptr;
    }
    return out.data();
}

bool RemoteScreen::paintPalette(const QRect& rect, const std::vector<std::uint32_t>& palette,
                                const QByteArray& compressed, QString* error) {
    if (!checkRect(rect, error)) {
        return false;
    }
    const std::size_t count = std::size_t(rect.width()) * std::size_t(rect.height());
    const unsigned char* index = inflate(rect, compressed, count, error);
    if (index == nullptr) {
        return false;
    }
    if (std::any_of(index, index + count, [&](unsigned char i) { return i >= palette.size(); })) {
        *error = u"a colour index beyond the %1 colours of the palette"_s.arg(palette.size());
        return false;
    }
    for (int y = rect.top(); y <= rect.bottom(); ++y) {
        std::uint32_t* out = row(y) + rect.x();
        for (int x = 0; x < rect.width(); ++x) {
            out[x] = opaque | palette[*index++];
        }
    }
    return true;
}

bool RemoteScreen::paintZstd(const QRect& rect, const QByteArray& compressed, QString* error) {
    if (!checkRect(rect, error)) {
        return false;
    }
    const unsigned char* in =
        inflate(rect, compressed, std::size_t(rect.width()) * std::size_t(rect.height()) * 3, error);
    if (in == nullptr) {
        return false;
    }
    for (int y = rect.top(); y <= rect.bottom(); ++y) {
        std::uint32_t* out = row(y) + rect.x();
        for (int x = 0; x < rect.width(); ++x, in += 3) {
            out[x] = opaque | std::uint32_t(in[0]) << 16 | std::uint32_t(in[1]) << 8 | in[2];
        }
    }
    return true;
}

bool RemoteScreen::paintJpeg(const QRect& rect, const QByteArray& jpeg, QString* error) {
    if (!checkRect(rect, error)) {
        return false;
    }
    auto* data = reinterpret_cast<unsigned char*>(const_cast<char*>(jpeg.constData()));
    int width = 0, height = 0, subsampling = 0, colourspace = 0;
    if (m_decoders->jpeg == nullptr ||
        tjDecompressHeader3(m_decoders->jpeg, data, static_cast<unsigned long>(jpeg.size()), &width, &height,
                            &subsampling, &colourspace) != 0) {
        *error = u"undecodable JPEG tile"_s;
        return false;
    }
    if (width != rect.width() || height != rect.height()) {
        *error = u"a %1x%2 JPEG tile for a %3x%4 rectangle"_s.arg(width)
                     .arg(height)
                     .arg(rect.width())
                     .arg(rect.height());
        return false;
    }
    // TJPF_BGRA in memory is 0xAARRGGBB on a little-endian machine: straight into the picture.
    auto* target = reinterpret_cast<unsigned char*>(row(rect.y()) + rect.x());
    if (tjDecompress2(m_decoders->jpeg, data, static_cast<unsigned long>(jpeg.size()), target, width,
                      m_size.width() * int(sizeof(std::uint32_t)), height, TJPF_BGRA, TJFLAG_FASTDCT) != 0) {
        *error = u"undecodable JPEG tile: %1"_s.arg(QString::fromUtf8(tjGetErrorStr2(m_decoders->jpeg)));
        return false;
    }
    for (int y = rect.top(); y <= rect.bottom(); ++y) {
        std::uint32_t* out = row(y) + rect.x();
        for (int x = 0; x < rect.width(); ++x) {
            out[x] |= opaque;
        }
    }
    return true;
}

bool RemoteScreen::setCursorShape(QSize size, QPoint hotSpot, const QByteArray& argb, QString* error) {
    if (size.width() < 0 || size.height() < 0 || size.width() > largestCursor ||
        size.height() > largestCursor) {
        *error = u"a cursor of %1x%2 pixels"_s.arg(size.width()).arg(size.height());
        return false;
    }
    if (argb.size() != qsizetype(size.width()) * size.height() * 4) {
        *error = u"%1 bytes of cursor picture for %2x%3 pixels"_s.arg(argb.size())
                     .arg(size.width())
                     .arg(size.height());
        return false;
    }
    m_cursor.size = size;
    m_cursor.hotSpot = hotSpot;
    m_cursor.pixels.resize(std::size_t(size.width()) * std::size_t(size.height()));
    const auto* in = reinterpret_cast<const unsigned char*>(argb.constData());
    for (std::uint32_t& pixel : m_cursor.pixels) {
        // Big-endian A, R, G, B on the wire.
        pixel = std::uint32_t(in[0]) << 24 | std::uint32_t(in[1]) << 16 | std::uint32_t(in[2]) << 8 | in[3];
        in += 4;
    }
    return true;
}

void RemoteScreen::setCursorPosition(QPoint position, bool visible) {
    m_cursor.position = position;
    m_cursor.visible = visible;
}

} // namespace tellwyn
