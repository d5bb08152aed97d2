// The viewer's picture: each painting operation of a frame update on synthetic data, and the
// PNG that `tellwyn screenshot` writes, read back with an independent decoder (Qt's).

#include "png_writer.h"
#include "remote_screen.h"
#include "screen_encoder.h"
#include "screen_session.h"
#include "screen_stream.h"

#include <QImage>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <cmath>
#include <turbojpeg.h>
#include <zstd.h>

using namespace tellwyn;
using namespace Qt::StringLiterals;

namespace {

// A picture where every pixel differs from its neighbours, so a misplaced copy shows.
void paintPattern(RemoteScreen& screen) {
    QString error;
    for (int y = 0; y < screen.size().height(); ++y) {
        for (int x = 0; x < screen.size().width(); ++x) {
            QVERIFY(screen.fill(QRect(x, y, 1, 1), std::uint32_t(y) << 8 | std::uint32_t(x), &error));
        }
    }
}

QByteArray zstd(const QByteArray& bytes) {
    QByteArray compressed(qsizetype(ZSTD_compressBound(std::size_t(bytes.size()))), Qt::Uninitialized);
    compressed.truncate(qsizetype(ZSTD_compress(compressed.data(), std::size_t(compressed.size()),
                                                bytes.constData(), std::size_t(bytes.size()), 3)));
    return compressed;
}

QByteArray smoothRgb(int width, int height) {
    QByteArray rgb;
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            rgb.append(char(x * 4)).append(char(y * 4)).append(char(128 + 60 * std::sin((x + y) / 9.0)));
        }
    }
    return rgb;
}

} // namespace

class RemoteScreenTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void copyMovesPixelsInBothDirectionsAcrossAnOverlap() {
        for (const int shift : {-3, 3}) {
            RemoteScreen screen;
            screen.resize(QSize(16, 12));
            paintPattern(screen);
            QString error;
            // Rows 4..7 move by `shift` rows and 2 columns, over themselves.
            QVERIFY2(screen.copy(QRect(2, 4, 10, 4), QPoint(4, 4 + shift), &error), qPrintable(error));
            for (int y = 0; y < 4; ++y) {
                for (int x = 0; x < 10; ++x) {
                    QCOMPARE(screen.pixel(4 + x, 4 + shift + y),
                             0xFF000000u | std::uint32_t(4 + y) << 8 | std::uint32_t(2 + x));
                }
            }
        }
    }

    void zstdDataOfTheWrongSizeIsRefused() {
        RemoteScreen screen;
        screen.resize(QSize(40, 30));
        const QByteArray compressed = zstd(smoothRgb(16, 8));
        QString error;
        QVERIFY(!screen.paintZstd(QRect(20, 10, 16, 7), compressed, &error));
        QVERIFY(error.contains(u"16x7"_s));
        QVERIFY(!screen.paintZstd(QRect(20, 10, 16, 9), compressed, &error));
        QVERIFY(!screen.paintZstd(QRect(20, 10, 16, 8), compressed.left(compressed.size() / 2), &error));
        QCOMPARE(screen.pixel(20, 10), 0xFF000000u);
    }

    void jpegTileComesCloseToItsSource() {
        RemoteScreen screen;
        screen.resize(QSize(64, 64));
        const QByteArray rgb = smoothRgb(32, 16);
        tjhandle encoder = tjInitCompress();
        unsigned char* jpeg = nullptr;
        unsigned long jpegSize = 0;
        QCOMPARE(tjCompress2(encoder, reinterpret_cast<const unsigned char*>(rgb.constData()), 32, 32 * 3, 16,
                             TJPF_RGB, &jpeg, &jpegSize, TJSAMP_444, 95, 0),
                 0);
        const QByteArray data(reinterpret_cast<const char*>(jpeg), qsizetype(jpegSize));
        tjFree(jpeg);
        tjDestroy(encoder);
        QString error;
        QVERIFY2(screen.paintJpeg(QRect(8, 40, 32, 16), data, &error), qPrintable(error));
        double totalError = 0;
        for (int y = 0; y < 16; ++y) {
            for (int x = 0; x < 32; ++x) {
                const auto* p = reinterpret_cast<const unsigned char*>(rgb.constData()) + 3 * (y * 32 + x);
                const std::uint32_t got = screen.pixel(8 + x, 40 + y);
                QCOMPARE(got >> 24, 0xFFu);
                totalError += std::abs(int(got >> 16 & 0xFF) - p[0]) + std::abs(int(got >> 8 & 0xFF) - p[1]) +
                              std::abs(int(got & 0xFF) - p[2]);
            }
        }
        QVERIFY2(totalError / (32 * 16 * 3) < 3.0, qPrintable(QString::number(totalError / (32 * 16 * 3))));
        QVERIFY(!screen.paintJpeg(QRect(8, 40, 16, 16), data, &error));
        QVERIFY(!screen.paintJpeg(QRect(8, 40, 32, 16), QByteArray("not a jpeg"), &error));
    }

    void badRectanglesAndIndicesLeaveThePictureAlone() {
        RemoteScreen screen;
        screen.resize(QSize(8, 8));
        paintPattern(screen);
        QString error;
        QVERIFY(!screen.fill(QRect(4, 4, 5, 1), 0xFFFFFF, &error));
        QVERIFY(error.contains(u"outside the 8x8 screen"_s));
        QVERIFY(!screen.copy(QRect(0, 0, 4, 4), QPoint(6, 6), &error));
        QVERIFY(!screen.paintPalette(QRect(0, 0, 2, 1), {0x123456}, zstd(QByteArray("\x00\x01", 2)), &error));
        QVERIFY(error.contains(u"beyond the 1 colours"_s));
        QVERIFY(!screen.paintPalette(QRect(0, 0, 2, 2), {0x123456}, zstd(QByteArray(3, '\0')), &error));
        for (int y = 0; y < 8; ++y) {
            for (int x = 0; x < 8; ++x) {
                QCOMPARE(screen.pixel(x, y), 0xFF000000u | std::uint32_t(y) << 8 | std::uint32_t(x));
            }
        }
        QVERIFY(screen.paintPalette(QRect(1, 1, 2, 1), {0x123456, 0xABCDEF}, zstd(QByteArray("\x01\x00", 2)),
                                    &error));
        QCOMPARE(screen.pixel(1, 1), 0xFFABCDEFu);
        QCOMPARE(screen.pixel(2, 1), 0xFF123456u);
    }

    void cursorShapeIsReadAsBigEndianArgb() {
        RemoteScreen screen;
        QString error;
        QVERIFY(screen.setCursorShape(QSize(2, 1), QPoint(1, 0),
                                      QByteArray("\x80\x10\x20\x30\xFF\x01\x02\x03", 8), &error));
        QCOMPARE(screen.cursor().pixels, (std::vector<std::uint32_t>{0x80102030u, 0xFF010203u}));
        QVERIFY(!screen.setCursorShape(QSize(2, 2), QPoint(0, 0), QByteArray(8, '\0'), &error));
        QVERIFY(!screen.setCursorShape(QSize(1000, 1), QPoint(0, 0), QByteArray(4000, '\0'), &error));
    }

    void streamShowsOnlyWholeFramesOfItsOwnStream() {
        RemoteScreen screen;
        ScreenStream stream(screen);
        QSignalSpy completed(&stream, &ScreenStream::frameCompleted);
        QSignalSpy failed(&stream, &ScreenStream::failed);
        stream.streamStarted(7, QSize(32, 16)); // not asked for: ignored
        QVERIFY(!stream.streamID());
        stream.requested();
        stream.streamStarted(7, QSize(32, 16));
        QCOMPARE(screen.size(), QSize(32, 16));
        stream.framePart(7, 1, false, {{QRect(0, 0, 32, 16), u"solid"_s, 0x102030, {}, {}, {}}}, 10);
        QCOMPARE(completed.count(), 0);
        stream.framePart(3, 1, true, {{QRect(0, 0, 32, 16), u"solid"_s, 0xFFFFFF, {}, {}, {}}},
                         10); // another stream
        stream.framePart(7, 1, true,
                         {{QRect(0, 0, 4, 1),
                           u"palette"_s,
                           0,
                           {},
                           QByteArray("\xAA\xBB\xCC\x01\x02\x03", 6),
                           zstd(QByteArray("\x00\x01\x00\x01", 4))},
                          {QRect(8, 8, 4, 1), u"copy"_s, 0, QPoint(0, 0), {}, {}}},
                         20);
        QCOMPARE(completed.count(), 1);
        QCOMPARE(completed.at(0), (QVariantList{7u, 1u}));
        QCOMPARE(screen.pixel(5, 5), 0xFF102030u);
        QCOMPARE(screen.pixel(9, 8), 0xFF010203u);
        QCOMPARE(screen.pixel(10, 8), 0xFFAABBCCu);
        stream.framePart(7, 2, true, {{QRect(0, 0, 1, 1), u"webp"_s, 0, {}, {}, {}}}, 10);
        QCOMPARE(failed.count(), 1);
        QVERIFY(failed.at(0).at(1).toString().contains(u"unknown encoding 'webp'"_s));
        stream.framePart(7, 3, true, {{QRect(0, 0, 1, 1), u"solid"_s, 0, {}, {}, {}}},
                         10); // stopped: ignored
        QCOMPARE(completed.count(), 1);
        QCOMPARE(screen.pixel(0, 0), 0xFFAABBCCu);
    }

    // The agent's own encoder, lossless: a first frame, then a scroll with a new line, assemble
    // to exactly the agent's pixels.
    void framesOfTheAgentsEncoderAssembleToItsScreen() {
        const int width = 300, height = 200;
        PixelBuffer desktop;
        desktop.resize(width, height);
        quint32 seed = 22;
        for (int y = 0; y < height; ++y) {
            for (int x = 0; x < width; ++x) {
                seed = seed * 1103515245u + 12345u;
                // A flat column, a gradient band, noise on the left and two-colour text elsewhere.
                const bool noise = x < 128 && (y / 4) % 3 == 0;
                desktop.row(y)[x] = x >= 256 ? 0x3366AAu
                                    : y < 60 ? quint32(x) << 16 | quint32(y) << 8 | 0x40u
                                    : noise  ? ((seed >> 8) & 0xFFFFFFu)
                                             : ((x / 7 + y / 9) % 2 ? 0xFFFFFFu : 0x202020u);
            }
        }
        ScreenDeltaEncoder encoder(width, height, ScreenDeltaEncoder::Mode::lossless);
        RemoteScreen screen;
        ScreenStream stream(screen);
        QSignalSpy failed(&stream, &ScreenStream::failed);
        stream.requested();
        stream.streamStarted(1, QSize(width, height));
        const auto sendFrame = [&](quint32 frame) {
            QList<StreamRect> rects;
            for (const HLVPScreenRect& rect : encoder.encode(desktop.view(), 0)) {
                rects.append(toStreamRect(rect));
            }
            stream.framePart(1, frame, true, rects, 0);
            return rects;
        };
        const auto compare = [&] {
            for (int y = 0; y < height; ++y) {
                for (int x = 0; x < width; ++x) {
                    QCOMPARE(screen.pixel(x, y) & 0xFFFFFFu, desktop.row(y)[x] & 0xFFFFFFu);
                }
            }
        };
        QSet<QString> encodings;
        for (const StreamRect& rect : sendFrame(1)) {
            encodings.insert(rect.encoding);
        }
        QCOMPARE(encodings, (QSet<QString>{u"solid"_s, u"palette"_s, u"zstd"_s}));
        compare();
        // Scroll the lower part up by 12 rows and write a new line at the bottom.
        for (int y = 60; y < height - 12; ++y) {
            std::copy_n(desktop.row(y + 12), width, desktop.row(y));
        }
        for (int y = height - 12; y < height; ++y) {
            std::fill_n(desktop.row(y), width, 0x00FF8800u + quint32(y));
        }
        encoder.damage(QRect(0, 60, width, height - 60));
        const QList<StreamRect> scroll = sendFrame(2);
        QVERIFY(std::any_of(scroll.begin(), scroll.end(),
                            [](const StreamRect& r) { return r.encoding == u"copy"_s; }));
        compare();
        QCOMPARE(failed.count(), 0);
    }

    void pngHoldsTheExactPixels() {
        RemoteScreen screen;
        screen.resize(QSize(37, 23));
        paintPattern(screen);
        QString error;
        QVERIFY(screen.fill(QRect(30, 20, 7, 3), 0xFEDCBA, &error));
        QTemporaryDir folder;
        const QString path = folder.filePath(u"shot.png"_s);
        QVERIFY2(writePng(path, 37, 23, screen.pixels(), 37, &error), qPrintable(error));
        const QImage image(path);
        QCOMPARE(image.size(), QSize(37, 23));
        for (int y = 0; y < 23; ++y) {
            for (int x = 0; x < 37; ++x) {
                QCOMPARE(image.pixel(x, y), screen.pixel(x, y));
            }
        }
        QVERIFY(!writePng(folder.filePath(u"missing/shot.png"_s), 37, 23, screen.pixels(), 37, &error));
        QVERIFY(error.contains(u"missing/shot.png"_s));
    }
};

QTEST_GUILESS_MAIN(RemoteScreenTest)
#include "tst_remote_screen.moc"
