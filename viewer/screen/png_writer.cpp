#include "png_writer.h"

#include <QFile>
#include <QSaveFile>
#include <vector>
#include <zlib.h>

using namespace Qt::StringLiterals;

namespace tellwyn {

namespace {

void appendBigEndian(QByteArray& out, quint32 value) {
    out.append(char(value >> 24)).append(char(value >> 16)).append(char(value >> 8)).append(char(value));
}

void appendChunk(QByteArray& out, const char* type, const QByteArray& data) {
    appendBigEndian(out, quint32(data.size()));
    const qsizetype start = out.size();
    out.append(type, 4).append(data);
    const auto* bytes = reinterpret_cast<const Bytef*>(out.constData() + start);
    appendBigEndian(out, quint32(crc32(crc32(0, nullptr, 0), bytes, uInt(out.size() - start))));
}

} // namespace

bool writePng(const QString& path, int width, int height, const std::uint32_t* pixels, int stride,
              QString* error) {
    if (width <= 0 || height <= 0) {
        *error = u"no picture to write"_s;
        return false;
    }
    // Each row: filter type 1 (difference to the pixel on the left), then R, G, B.
    const std::size_t rowBytes = 1 + std::size_t(width) * 3;
    std::vector<Bytef> filtered(rowBytes * std::size_t(height));
    for (int y = 0; y < height; ++y) {
        Bytef* row = filtered.data() + rowBytes * std::size_t(y);
        const std::uint32_t* source = pixels + std::size_t(y) * std::size_t(stride);
        row[0] = 1;
        std::uint32_t left = 0;
        for (int x = 0; x < width; ++x) {
            const std::uint32_t pixel = source[x];
            for (int channel = 0; channel < 3; ++channel) {
                const int shift = 16 - 8 * channel;
                row[1 + 3 * x + channel] = Bytef(((pixel >> shift) - (left >> shift)) & 0xFF);
            }
            left = pixel;
        }
    }
    uLongf compressedSize = compressBound(uLong(filtered.size()));
    QByteArray compressed(qsizetype(compressedSize), Qt::Uninitialized);
    if (compress2(reinterpret_cast<Bytef*>(compressed.data()), &compressedSize, filtered.data(),
                  uLong(filtered.size()), 6) != Z_OK) {
        *error = u"cannot compress the picture"_s;
        return false;
    }
    compressed.truncate(qsizetype(compressedSize));

    QByteArray header;
    appendBigEndian(header, quint32(width));
    appendBigEndian(header, quint32(height));
    header.append(char(8)).append(char(2)).append(char(0)).append(char(0)).append(char(0)); // 8-bit RGB
    QByteArray png("\x89PNG\r\n\x1a\n", 8);
    appendChunk(png, "IHDR", header);
    appendChunk(png, "IDAT", compressed);
    appendChunk(png, "IEND", {});

    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(png) != png.size() || !file.commit()) {
        *error = u"cannot write %1: %2"_s.arg(path, file.errorString());
        return false;
    }
    return true;
}

} // namespace tellwyn
