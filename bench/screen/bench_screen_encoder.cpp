// Encodes synthetic 1920×1080 frames the way a stream would and prints, per scene, the time per
// frame and the bytes sent. Usage: bench_screen_encoder [repetitions]

#include "screen_encoder.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QRandomGenerator>
#include <cstdio>

using namespace tellwyn;

namespace {

constexpr int width = 1920;
constexpr int height = 1080;

// A desktop: a flat background, a page of text lines in a window, a photo.
void paint(PixelBuffer& picture, int scroll, quint32 seed) {
    QRandomGenerator random(seed);
    for (int y = 0; y < height; ++y) {
        quint32* row = picture.row(y);
        const int line = y + scroll;
        for (int x = 0; x < width; ++x) {
            quint32 c = 0x2D3E50;
            if (x >= 100 && x < 1100 && y >= 80 && y < 1000) {
                const bool ink =
                    (line % 18) < 12 && ((x * 5 + line * line / 3) % 17) < 4 && (x / 9 + line / 18) % 13 != 0;
                c = ink ? 0x202020U + quint32(line % 18) * 0x050505U : 0xFFFFFFU;
            } else if (x >= 1200 && x < 1800 && y >= 200 && y < 600) {
                c = random.generate() & 0xFFFFFF;
            }
            row[x] = c;
        }
    }
}

void report(const char* scene, const char* mode, qint64 nanoseconds, int frames, qsizetype bytes) {
    std::printf("| %-24s | %-8s | %8.2f ms | %10lld bytes |\n", scene, mode,
                double(nanoseconds) / 1e6 / frames, static_cast<long long>(bytes / frames));
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication application(argc, argv);
    const int repetitions = argc > 1 ? std::max(1, std::atoi(argv[1])) : 20;
    std::printf("| scene | mode | time per frame | bytes per frame |\n|---|---|---|---|\n");
    for (const auto mode : {ScreenDeltaEncoder::Mode::lossless, ScreenDeltaEncoder::Mode::balanced}) {
        const char* modeName = mode == ScreenDeltaEncoder::Mode::lossless ? "lossless" : "balanced";
        PixelBuffer screen;
        screen.resize(width, height);
        paint(screen, 0, 1);

        qsizetype bytes = 0;
        QElapsedTimer timer;
        timer.start();
        for (int i = 0; i < repetitions; ++i) {
            ScreenDeltaEncoder encoder(width, height, mode);
            for (const HLVPScreenRect& rect : encoder.encode(screen.view(), 0)) {
                bytes += rect.data.size() + rect.palette.size();
            }
        }
        report("first (whole) frame", modeName, timer.nsecsElapsed(), repetitions, bytes);

        // One line of text scrolls by per frame: a copy and one new line.
        ScreenDeltaEncoder encoder(width, height, mode);
        (void)encoder.encode(screen.view(), 0);
        bytes = 0;
        qint64 spent = 0;
        for (int i = 1; i <= repetitions; ++i) {
            paint(screen, i * 18, 1);
            timer.restart();
            encoder.damage(QRect(100, 80, 1000, 920));
            for (const HLVPScreenRect& rect : encoder.encode(screen.view(), i * 50)) {
                bytes += rect.data.size() + rect.palette.size() + 16;
            }
            spent += timer.nsecsElapsed();
        }
        report("scroll by one text line", modeName, spent, repetitions, bytes);

        // A character typed: one small area changes.
        bytes = 0;
        spent = 0;
        for (int i = 0; i < repetitions; ++i) {
            for (int y = 300; y < 316; ++y) {
                std::fill_n(screen.row(y) + 400 + i * 9, 8, 0x101010U);
            }
            timer.restart();
            encoder.damage(QRect(400 + i * 9, 300, 8, 16));
            for (const HLVPScreenRect& rect : encoder.encode(screen.view(), 10000 + i * 200)) {
                bytes += rect.data.size() + rect.palette.size() + 16;
            }
            spent += timer.nsecsElapsed();
        }
        report("typed character", modeName, spent, repetitions, bytes);

        // Full-screen motion: every pixel changes.
        bytes = 0;
        spent = 0;
        for (int i = 0; i < repetitions; ++i) {
            for (quint32& pixel : screen.pixels) {
                pixel = QRandomGenerator::global()->generate() & 0xFFFFFF;
            }
            timer.restart();
            encoder.damage(QRect(0, 0, width, height));
            for (const HLVPScreenRect& rect : encoder.encode(screen.view(), 20000 + i * 33)) {
                bytes += rect.data.size() + rect.palette.size() + 16;
            }
            spent += timer.nsecsElapsed();
        }
        report("full-screen noise", modeName, spent, repetitions, bytes);
    }
    return 0;
}
