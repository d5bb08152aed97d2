// The screen encoder against synthetic pictures: what a viewer assembles from the rectangles
// equals the screen (lossless), changes nobody can see cost nothing, scrolls travel as copies,
// and lossy areas become exact once still.

#include "screen_encoder.h"

#include <QRandomGenerator>
#include <QTest>

using namespace tellwyn;
using Encoding = HLVPScreenRect::Encoding;

namespace {

// A desktop-like picture: a flat background, a window of "text" lines (distinct per row), a
// two-colour chequer and a photo of noise.
PixelBuffer desktop(int width, int height, quint32 seed) {
    PixelBuffer picture;
    picture.resize(width, height);
    QRandomGenerator random(seed);
    for (int y = 0; y < height; ++y) {
        quint32* row = picture.row(y);
        for (int x = 0; x < width; ++x) {
            row[x] = 0x204060;
            if (x >= 40 && x < 360 && y >= 20 && y < 300) {
                row[x] = ((x * 7 + y * y) % 13 < 3 && y % 12 < 9) ? 0x010203 * quint32(y % 64) : 0xFFFFFF;
            } else if (x >= 400 && y < 128) {
                row[x] = ((x / 4 + y / 4) % 2) != 0 ? 0xFF0000 : 0x00FF00;
            } else if (x >= 400 && y >= 160) {
                row[x] = random.generate() & 0xFFFFFF;
            }
        }
    }
    return picture;
}

qsizetype apply(PixelBuffer& viewer, const QList<HLVPScreenRect>& rects) {
    qsizetype bytes = 0;
    for (const HLVPScreenRect& rect : rects) {
        QString error;
        if (!applyScreenRect(viewer, rect, &error)) {
            qWarning("rectangle refused: %s", qPrintable(error));
            return -1;
        }
        bytes += rect.data.size() + rect.palette.size();
    }
    return bytes;
}

QRect areaOf(const HLVPScreenRect& rect) {
    return QRect(int(rect.x), int(rect.y), int(rect.w), int(rect.h));
}

bool has(const QList<HLVPScreenRect>& rects, Encoding encoding) {
    return std::any_of(rects.begin(), rects.end(),
                       [&](const HLVPScreenRect& r) { return r.encoding == encoding; });
}

} // namespace

class TestScreenEncoder : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void losslessFramesRebuildTheScreenExactly() {
        PixelBuffer screen = desktop(620, 410, 1);
        ScreenDeltaEncoder encoder(screen.width, screen.height, ScreenDeltaEncoder::Mode::lossless);
        PixelBuffer viewer;
        viewer.resize(screen.width, screen.height);
        const QList<HLVPScreenRect> first = encoder.encode(screen.view(), 0);
        QVERIFY(apply(viewer, first) >= 0);
        QVERIFY(viewer.pixels == screen.pixels);
        QVERIFY(has(first, Encoding::solid) && has(first, Encoding::palette) && has(first, Encoding::zstd));
        QVERIFY(!has(first, Encoding::jpeg));

        // Later frames carry only what changed, still exact.
        for (int y = 100; y < 180; ++y) {
            std::fill_n(screen.row(y) + 10, 500, 0xABCDEFU);
        }
        screen.row(405)[615] = 0x010203;
        encoder.damage(QRect(10, 100, 500, 80));
        encoder.damage(QRect(615, 405, 1, 1));
        const QList<HLVPScreenRect> next = encoder.encode(screen.view(), 40);
        QVERIFY(apply(viewer, next) >= 0);
        QVERIFY(viewer.pixels == screen.pixels);
        for (const HLVPScreenRect& rect : next) {
            QVERIFY(QRect(0, 64, 620, 128).contains(areaOf(rect)) || areaOf(rect).contains(QPoint(615, 405)));
        }
    }

    void damageThatChangedNothingSendsNothing() {
        const PixelBuffer screen = desktop(300, 200, 2);
        ScreenDeltaEncoder encoder(screen.width, screen.height, ScreenDeltaEncoder::Mode::lossless);
        QVERIFY(!encoder.encode(screen.view(), 0).isEmpty());
        QVERIFY(!encoder.hasDamage());
        encoder.damage(QRect(0, 0, 300, 200));
        QVERIFY(encoder.hasDamage());
        QVERIFY(encoder.encode(screen.view(), 10).isEmpty());
    }

    void aScrollTravelsAsACopyOfPixelsTheViewerHas() {
        PixelBuffer screen = desktop(620, 410, 3);
        ScreenDeltaEncoder encoder(screen.width, screen.height, ScreenDeltaEncoder::Mode::lossless);
        PixelBuffer viewer;
        viewer.resize(screen.width, screen.height);
        QVERIFY(apply(viewer, encoder.encode(screen.view(), 0)) >= 0);

        // The text window scrolls up by 37 rows; a new line appears at its bottom.
        const QRect window(40, 20, 320, 280);
        const PixelBuffer before = screen;
        for (int y = window.top(); y <= window.bottom(); ++y) {
            for (int x = window.left(); x <= window.right(); ++x) {
                screen.row(y)[x] =
                    y + 37 <= window.bottom() ? before.row(y + 37)[x] : 0x00FF00U * quint32(x % 3);
            }
        }
        encoder.damage(window);
        const QList<HLVPScreenRect> rects = encoder.encode(screen.view(), 40);
        QVERIFY(!rects.isEmpty());
        const HLVPScreenRect& copy = rects.first();
        QCOMPARE(copy.encoding, Encoding::copy);
        QCOMPARE(int(copy.srcY) - int(copy.y), 37);
        QCOMPARE(copy.h, quint32(window.height() - 37));
        const qsizetype bytes = apply(viewer, rects);
        QVERIFY(viewer.pixels == screen.pixels);

        // Sent as pixels, the same change costs many times more.
        ScreenDeltaEncoder fresh(screen.width, screen.height, ScreenDeltaEncoder::Mode::lossless);
        (void)fresh.encode(before.view(), 0);
        fresh.damage(QRect(window.left(), window.top(), window.width(), 1)); // no move to find in one row
        qsizetype pixelBytes = 0;
        for (const HLVPScreenRect& rect : fresh.encode(screen.view(), 0)) {
            pixelBytes += rect.data.size();
        }
        ScreenDeltaEncoder all(screen.width, screen.height, ScreenDeltaEncoder::Mode::lossless);
        for (const HLVPScreenRect& rect : all.encode(screen.view().sub(QRect(0, 0, 620, 410)), 0)) {
            if (areaOf(rect).intersects(window)) {
                pixelBytes += rect.data.size();
            }
        }
        QVERIFY2(bytes * 4 < pixelBytes,
                 qPrintable(u"%1 bytes with the copy, %2 without"_qs.arg(bytes).arg(pixelBytes)));
    }

    void findsNoMoveBetweenUnrelatedPictures() {
        const PixelBuffer a = desktop(400, 300, 4);
        PixelBuffer b = desktop(400, 300, 5);
        for (int y = 0; y < 300; ++y) {
            std::fill_n(b.row(y), 400, quint32(y) * 0x010101U);
        }
        QVERIFY(!findVerticalShift(a.view(), b.view()));
    }

    void balancedSendsPhotosLossyAndMakesThemExactOnceStill() {
        const PixelBuffer screen = desktop(620, 410, 6);
        ScreenDeltaEncoder encoder(screen.width, screen.height, ScreenDeltaEncoder::Mode::balanced);
        PixelBuffer viewer;
        viewer.resize(screen.width, screen.height);
        const QList<HLVPScreenRect> first = encoder.encode(screen.view(), 1000);
        QVERIFY(has(first, Encoding::jpeg));
        QVERIFY(apply(viewer, first) >= 0);
        QVERIFY(viewer.pixels != screen.pixels);
        QCOMPARE(encoder.refinementDueAt(), std::optional<qint64>(1000 + ScreenDeltaEncoder::refineAfterMs));

        QVERIFY(encoder.encode(screen.view(), 1999).isEmpty());
        const QList<HLVPScreenRect> refined = encoder.encode(screen.view(), 2000);
        QVERIFY(!refined.isEmpty() && !has(refined, Encoding::jpeg));
        QVERIFY(apply(viewer, refined) >= 0);
        QVERIFY(viewer.pixels == screen.pixels);
        QCOMPARE(encoder.refinementDueAt(), std::nullopt);
    }

    void rectanglesOutsideThePictureOrWithBrokenDataAreRefused() {
        PixelBuffer viewer;
        viewer.resize(64, 64);
        QVERIFY(!applyScreenRect(viewer, {60, 0, 8, 8, Encoding::solid, 0, 0, 0, {}, {}}));
        QVERIFY(!applyScreenRect(viewer, {0, 0, 8, 8, Encoding::copy, 0, 60, 60, {}, {}}));
        QVERIFY(!applyScreenRect(viewer, {0, 0, 8, 8, Encoding::zstd, 0, 0, 0, {}, QByteArray(40, 'x')}));
        QVERIFY(!applyScreenRect(viewer, {0, 0, 8, 8, Encoding::jpeg, 0, 0, 0, {}, QByteArray(40, 'x')}));
    }
};

QTEST_GUILESS_MAIN(TestScreenEncoder)
#include "tst_screen_encoder.moc"
