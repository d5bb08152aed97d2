/* The pixel loops of the benchmark's RFB client, in C so that the client keeps up with the
 * servers it measures (a slow reader would throttle them and flatter their figures).
 * Pixels are 32-bit 0x00RRGGBB, the format the client asks every server for. */
#include <stddef.h>
#include <stdint.h>
#include <string.h>

static uint32_t cpixel(const uint8_t* p) {
    return (uint32_t)p[0] | (uint32_t)p[1] << 8 | (uint32_t)p[2] << 16;
}

/* Decodes the inflated ZRLE data of a w x h rectangle into `out` (row stride `stride` pixels).
 * Returns the bytes used, or -1 when the data is short or malformed. */
long zrle_decode(const uint8_t* data, size_t size, int w, int h, uint32_t* out, int stride) {
    const uint8_t *p = data, *end = data + size;
#define NEED(n)                                                                                              \
    do {                                                                                                     \
        if ((size_t)(end - p) < (size_t)(n)) {                                                               \
            return -1;                                                                                       \
        }                                                                                                    \
    } while (0)
    for (int ty = 0; ty < h; ty += 64) {
        const int th = h - ty < 64 ? h - ty : 64;
        for (int tx = 0; tx < w; tx += 64) {
            const int tw = w - tx < 64 ? w - tx : 64;
            uint32_t* tile = out + (size_t)ty * (size_t)stride + tx;
            NEED(1);
            const int sub = *p++;
            uint32_t palette[128];
            if (sub == 0) {
                NEED(3 * tw * th);
                for (int y = 0; y < th; ++y) {
                    for (int x = 0; x < tw; ++x, p += 3) {
                        tile[(size_t)y * (size_t)stride + x] = cpixel(p);
                    }
                }
            } else if (sub == 1) {
                NEED(3);
                const uint32_t c = cpixel(p);
                p += 3;
                for (int y = 0; y < th; ++y) {
                    for (int x = 0; x < tw; ++x) {
                        tile[(size_t)y * (size_t)stride + x] = c;
                    }
                }
            } else if (sub <= 16) {
                NEED(3 * sub);
                for (int i = 0; i < sub; ++i, p += 3) {
                    palette[i] = cpixel(p);
                }
                const int bits = sub == 2 ? 1 : sub <= 4 ? 2 : 4;
                const int rowBytes = (tw * bits + 7) / 8;
                NEED(rowBytes * th);
                for (int y = 0; y < th; ++y, p += rowBytes) {
                    for (int x = 0; x < tw; ++x) {
                        const int bit = x * bits;
                        const int index = (p[bit / 8] >> (8 - bits - bit % 8)) & ((1 << bits) - 1);
                        if (index >= sub) {
                            return -1;
                        }
                        tile[(size_t)y * (size_t)stride + x] = palette[index];
                    }
                }
            } else if (sub == 128 || sub >= 130) {
                const int paletteSize = sub == 128 ? 0 : sub - 128;
                NEED(3 * paletteSize);
                for (int i = 0; i < paletteSize; ++i, p += 3) {
                    palette[i] = cpixel(p);
                }
                int at = 0;
                const int count = tw * th;
                while (at < count) {
                    uint32_t c;
                    int run = 1;
                    if (paletteSize == 0) {
                        NEED(3);
                        c = cpixel(p);
                        p += 3;
                        run = 0;
                    } else {
                        NEED(1);
                        const int index = *p & 127;
                        if (index >= paletteSize) {
                            return -1;
                        }
                        c = palette[index];
                        run = (*p++ & 128) ? 0 : 1;
                    }
                    if (run == 0) {
                        run = 1;
                        for (;;) {
                            NEED(1);
                            const int b = *p++;
                            run += b;
                            if (b != 255) {
                                break;
                            }
                        }
                    }
                    if (run > count - at) {
                        return -1;
                    }
                    for (int i = 0; i < run; ++i, ++at) {
                        tile[(size_t)(at / tw) * (size_t)stride + at % tw] = c;
                    }
                }
            } else {
                return -1;
            }
        }
    }
    return (long)(p - data);
#undef NEED
}

/* Undoes Tight's gradient filter: `data` holds w*h R,G,B triples of prediction errors. */
void tight_gradient(const uint8_t* data, int w, int h, uint32_t* out, int stride) {
    uint8_t previous[3 * 4096], current[3 * 4096];
    memset(previous, 0, sizeof previous);
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w && x < 4096; ++x) {
            for (int c = 0; c < 3; ++c) {
                const int left = x > 0 ? current[3 * (x - 1) + c] : 0;
                const int up = previous[3 * x + c];
                const int upLeft = x > 0 ? previous[3 * (x - 1) + c] : 0;
                int predicted = left + up - upLeft;
                predicted = predicted < 0 ? 0 : predicted > 255 ? 255 : predicted;
                current[3 * x + c] = (uint8_t)(predicted + data[3 * ((size_t)y * (size_t)w + x) + c]);
            }
            out[(size_t)y * (size_t)stride + x] =
                (uint32_t)current[3 * x] << 16 | (uint32_t)current[3 * x + 1] << 8 | current[3 * x + 2];
        }
        memcpy(previous, current, sizeof previous);
    }
}
