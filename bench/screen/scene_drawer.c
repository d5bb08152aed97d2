/* The benchmark's own X client: draws one scripted scene on the root window of $DISPLAY.
 *
 *   scene_drawer SCENE SECONDS      SCENE: still | typing | scrolling | motion
 *
 * It first paints the scene's starting picture, prints "ready" and reads commands from standard
 * input: "go" draws the scene for SECONDS and then prints "done"; "snap" writes the whole screen
 * as a probe. Before each draw it writes a probe to standard output, so that the reader knows
 * which pixels to wait for:
 *
 *   "probe T X Y W H\n" followed by W*H*4 bytes (B, G, R, X per pixel, rows top to bottom)
 *
 * T is CLOCK_MONOTONIC in nanoseconds, taken just before the draw request goes to the server.
 * The expected pixels are rendered first (text in a pixmap with the same font and colours), so
 * the probe is on its way before the pixels can reach any viewer. */
#define _GNU_SOURCE
#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <X11/extensions/XShm.h>
#include <math.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <time.h>
#include <unistd.h>

static Display* display;
static Window root;
static GC gc;
static XFontStruct* font;
static int width, height, lineHeight, charWidth;
static unsigned long black, white;

static const char* const words[] = {
    "the",   "agent", "streams", "screen",  "tiles",  "to",     "every",  "viewer",  "that",     "signs",
    "in",    "and",   "asks",    "for",     "frames", "while",  "damage", "marks",   "what",     "changed",
    "since", "last",  "update",  "cursor",  "moves",  "apart",  "from",   "picture", "lossless", "mode",
    "keeps", "exact", "pixels",  "on",      "scroll", "copies", "rows",   "already", "there",    "so",
    "only",  "new",   "line",    "travels", "over",   "wire"};
#define WORD_COUNT ((int)(sizeof words / sizeof words[0]))

static int64_t nowNanoseconds(void) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (int64_t)ts.tv_sec * 1000000000LL + ts.tv_nsec;
}

static void sleepUntil(int64_t deadline) {
    struct timespec ts = {(time_t)(deadline / 1000000000LL), (long)(deadline % 1000000000LL)};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, NULL) != 0) {
    }
}

static void writeAll(const void* data, size_t size) {
    if (fwrite(data, 1, size, stdout) != size) {
        exit(3);
    }
}

/* Writes a probe whose pixels are the image's (W*H, 32 bits per pixel). */
static void writeProbe(int64_t t, int x, int y, int w, int h, const uint32_t* pixels, int stride) {
    printf("probe %lld %d %d %d %d\n", (long long)t, x, y, w, h);
    for (int row = 0; row < h; ++row) {
        writeAll(pixels + (size_t)row * (size_t)stride, (size_t)w * 4);
    }
    fflush(stdout);
}

/* The pixels that drawing `text` at `textX` in a white cell W x lineHeight gives. */
static void probeText(int x, int y, int w, int textX, const char* text, int length) {
    Pixmap pixmap = XCreatePixmap(display, root, (unsigned)w, (unsigned)lineHeight,
                                  (unsigned)DefaultDepth(display, DefaultScreen(display)));
    XSetForeground(display, gc, white);
    XFillRectangle(display, pixmap, gc, 0, 0, (unsigned)w, (unsigned)lineHeight);
    XSetForeground(display, gc, black);
    XDrawString(display, pixmap, gc, textX, font->ascent, text, length);
    XImage* image = XGetImage(display, pixmap, 0, 0, (unsigned)w, (unsigned)lineHeight, AllPlanes, ZPixmap);
    writeProbe(nowNanoseconds(), x, y, w, lineHeight, (const uint32_t*)image->data,
               image->bytes_per_line / 4);
    XDestroyImage(image);
    XFreePixmap(display, pixmap);
}

static int makeLine(char* line, int capacity, unsigned* seed) {
    int length = 0;
    while (length < capacity - 12) {
        const char* word = words[rand_r(seed) % WORD_COUNT];
        int n = (int)strlen(word);
        if (length + n + 1 >= capacity - 12) {
            break;
        }
        memcpy(line + length, word, (size_t)n);
        length += n;
        line[length++] = ' ';
    }
    line[length] = '\0';
    return length;
}

static void paintPage(int lines, unsigned* seed) {
    XSetForeground(display, gc, white);
    XFillRectangle(display, root, gc, 0, 0, (unsigned)width, (unsigned)height);
    XSetForeground(display, gc, black);
    char line[512];
    int columns = width / charWidth - 2;
    if (columns > (int)sizeof line) {
        columns = (int)sizeof line;
    }
    for (int i = 0; i < lines; ++i) {
        int length = makeLine(line, columns, seed);
        XDrawString(display, root, gc, charWidth, i * lineHeight + font->ascent, line, length);
    }
}

static void typing(int64_t end) {
    unsigned seed = 7;
    char line[512];
    int columns = width / charWidth - 4;
    int row = height / lineHeight / 2, column = 0;
    int length = makeLine(line, columns < 120 ? columns : 120, &seed), at = 0;
    for (int64_t next = nowNanoseconds(); next < end; next += 200000000LL) {
        sleepUntil(next);
        if (at == length) {
            length = makeLine(line, columns < 120 ? columns : 120, &seed);
            at = 0;
            column = 0;
            row = row + 1 < height / lineHeight ? row + 1 : height / lineHeight / 2;
        }
        const int x = charWidth * (column + 1), y = row * lineHeight;
        if (line[at] != ' ') {
            /* A blank on white changes no pixel, so it has nothing to wait for. */
            probeText(x, y, charWidth, 0, line + at, 1);
        }
        XSetForeground(display, gc, black);
        XDrawString(display, root, gc, x, y + font->ascent, line + at, 1);
        XSync(display, False);
        ++at;
        ++column;
    }
}

static void scrolling(int64_t end) {
    unsigned seed = 11;
    char line[512];
    int columns = width / charWidth - 2;
    if (columns > (int)sizeof line) {
        columns = (int)sizeof line;
    }
    const int rows = height / lineHeight, bottom = (rows - 1) * lineHeight;
    for (int64_t next = nowNanoseconds(); next < end; next += 50000000LL) {
        sleepUntil(next);
        const int length = makeLine(line, columns, &seed);
        probeText(0, bottom, width, charWidth, line, length);
        /* Everything moves up one line and a new line appears at the bottom, as in a terminal. */
        XCopyArea(display, root, root, gc, 0, lineHeight, (unsigned)width, (unsigned)bottom, 0, 0);
        XSetForeground(display, gc, white);
        XFillRectangle(display, root, gc, 0, bottom, (unsigned)width, (unsigned)lineHeight);
        XSetForeground(display, gc, black);
        XDrawString(display, root, gc, charWidth, bottom + font->ascent, line, length);
        XSync(display, False);
    }
}

/* A smooth moving colour field, the stand-in for a video played full screen. */
static void motion(int64_t end) {
    XShmSegmentInfo shm = {0};
    XImage* image = XShmCreateImage(display, DefaultVisual(display, DefaultScreen(display)),
                                    (unsigned)DefaultDepth(display, DefaultScreen(display)), ZPixmap, NULL,
                                    &shm, (unsigned)width, (unsigned)height);
    shm.shmid = shmget(IPC_PRIVATE, (size_t)image->bytes_per_line * (size_t)height, IPC_CREAT | 0600);
    shm.shmaddr = image->data = shmat(shm.shmid, NULL, 0);
    shm.readOnly = False;
    XShmAttach(display, &shm);
    XSync(display, False);
    shmctl(shm.shmid, IPC_RMID, NULL);

    int sine[1024];
    for (int i = 0; i < 1024; ++i) {
        sine[i] = (int)lround(63.0 * sin(i * 2.0 * M_PI / 1024.0));
    }
    uint32_t palette[256];
    for (int i = 0; i < 256; ++i) {
        const double a = i * 2.0 * M_PI / 256.0;
        const unsigned r = (unsigned)lround(127.5 + 127.5 * sin(a));
        const unsigned g = (unsigned)lround(127.5 + 127.5 * sin(a + 2.1));
        const unsigned b = (unsigned)lround(127.5 + 127.5 * sin(a + 4.2));
        palette[i] = r << 16 | g << 8 | b;
    }
    const int stride = image->bytes_per_line / 4;
    uint32_t* pixels = (uint32_t*)image->data;
    const int probeSize = 64, probeX = width / 2 - probeSize / 2, probeY = height / 3;
    int frame = 0;
    for (int64_t next = nowNanoseconds(); next < end; next += 16666667LL, ++frame) {
        const int t1 = frame * 11, t2 = frame * 7, t3 = frame * 5;
        /* One value per 2x2 block: as smooth to the eye and to an encoder, a quarter of the work,
         * which leaves the servers more of a busy machine. */
        for (int y = 0; y < height; y += 2) {
            const int sy = sine[(y * 3 + t2) & 1023];
            uint32_t* row = pixels + (size_t)y * (size_t)stride;
            for (int x = 0; x < width; x += 2) {
                const int v = sine[(x * 2 + t1) & 1023] + sy + sine[((x + y) + t3) & 1023];
                row[x] = row[x + 1] = palette[(v + 190 + frame * 3) & 255];
            }
            if (y + 1 < height) {
                memcpy(row + stride, row, (size_t)width * 4);
            }
        }
        sleepUntil(next);
        const int64_t t = nowNanoseconds();
        writeProbe(t, probeX, probeY, probeSize, probeSize, pixels + (size_t)probeY * (size_t)stride + probeX,
                   stride);
        XShmPutImage(display, root, gc, image, 0, 0, 0, 0, (unsigned)width, (unsigned)height, False);
        XSync(display, False);
        if (nowNanoseconds() > next + 16666667LL) {
            next = nowNanoseconds(); /* behind: do not try to catch up with a burst */
        }
    }
    XShmDetach(display, &shm);
    XDestroyImage(image);
    shmdt(shm.shmaddr);
}

int main(int argc, char** argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: scene_drawer still|typing|scrolling|motion SECONDS\n");
        return 2;
    }
    const char* scene = argv[1];
    const double seconds = atof(argv[2]);
    display = XOpenDisplay(NULL);
    if (display == NULL) {
        fprintf(stderr, "scene_drawer: cannot open the display\n");
        return 1;
    }
    root = DefaultRootWindow(display);
    width = DisplayWidth(display, DefaultScreen(display));
    height = DisplayHeight(display, DefaultScreen(display));
    black = BlackPixel(display, DefaultScreen(display));
    white = WhitePixel(display, DefaultScreen(display));
    font = XLoadQueryFont(display, "-misc-fixed-medium-r-normal--20-200-75-75-c-100-iso8859-1");
    if (font == NULL) {
        font = XLoadQueryFont(display, "fixed");
    }
    lineHeight = font->ascent + font->descent;
    charWidth = font->max_bounds.width;
    gc = XCreateGC(display, root, 0, NULL);
    XSetFont(display, gc, font->fid);
    XSetGraphicsExposures(display, gc, False);
    /* The pointer rests near the top right corner, away from every region a scene probes. */
    XWarpPointer(display, None, root, 0, 0, 0, 0, width - 24, 40);

    unsigned seed = 3;
    paintPage(strcmp(scene, "typing") == 0 ? height / lineHeight / 2 : height / lineHeight, &seed);
    XSync(display, False);
    printf("ready %d %d\n", width, height);
    fflush(stdout);
    /* Commands, one a line: "snap" writes the whole screen as a probe, "go" plays the scene. */
    char command[16];
    while (fgets(command, sizeof command, stdin) != NULL) {
        if (strncmp(command, "snap", 4) == 0) {
            XImage* image =
                XGetImage(display, root, 0, 0, (unsigned)width, (unsigned)height, AllPlanes, ZPixmap);
            writeProbe(nowNanoseconds(), 0, 0, width, height, (const uint32_t*)image->data,
                       image->bytes_per_line / 4);
            XDestroyImage(image);
        } else if (strncmp(command, "go", 2) == 0) {
            const int64_t end = nowNanoseconds() + (int64_t)(seconds * 1e9);
            if (strcmp(scene, "typing") == 0) {
                typing(end);
            } else if (strcmp(scene, "scrolling") == 0) {
                scrolling(end);
            } else if (strcmp(scene, "motion") == 0) {
                motion(end);
            } else {
                sleepUntil(end);
            }
            XSync(display, False);
            printf("done\n");
            fflush(stdout);
        }
    }
    XCloseDisplay(display);
    return 0;
}
