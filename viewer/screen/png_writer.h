#pragma once

#include <QString>
#include <cstdint>

namespace tellwyn {

// Writes `width` x `height` pixels (0xAARRGGBB, alpha ignored; rows `stride` pixels apart) to
// `path` as an 8-bit RGB PNG. Needs only zlib, so the command-line viewer stays free of Qt Gui.
bool writePng(const QString& path, int width, int height, const std::uint32_t* pixels, int stride,
              QString* error);

} // namespace tellwyn
