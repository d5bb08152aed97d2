#include "x11_screen_capture.h"

#include <QBuffer>
#include <QImage>
#include <QMetaObject>
#include <cstdlib>
#include <memory>
#include <xcb/xcb.h>

using namespace Qt::StringLiterals;

namespace tellwyn {

namespace {

HLVPScreenCapture::Result capture(quint32 displayID, double quality) {
    const char* display = std::getenv("DISPLAY");
    if (display == nullptr || *display == '\0') {
        return HLVPError(HLVPError::Code::captureFailed, u"There is no X display to capture."_s);
    }
    std::unique_ptr<xcb_connection_t, void (*)(xcb_connection_t*)> connection(xcb_connect(display, nullptr),
                                                                              xcb_disconnect);
    if (xcb_connection_has_error(connection.get()) != 0) {
        return HLVPError(HLVPError::Code::captureFailed,
                         u"The X display %1 cannot be reached."_s.arg(QString::fromLocal8Bit(display)));
    }
    auto screens = xcb_setup_roots_iterator(xcb_get_setup(connection.get()));
    for (quint32 i = 0; i < displayID && screens.rem > 0; ++i) {
        xcb_screen_next(&screens);
    }
    if (screens.rem == 0) {
        return HLVPError(HLVPError::Code::captureFailed, u"There is no display %1."_s.arg(displayID));
    }
    const xcb_screen_t* screen = screens.data;
    const auto cookie = xcb_get_image(connection.get(), XCB_IMAGE_FORMAT_Z_PIXMAP, screen->root, 0, 0,
                                      screen->width_in_pixels, screen->height_in_pixels, ~0U);
    std::unique_ptr<xcb_get_image_reply_t, void (*)(void*)> reply(
        xcb_get_image_reply(connection.get(), cookie, nullptr), std::free);
    const int width = screen->width_in_pixels;
    const int height = screen->height_in_pixels;
    if (!reply || reply->depth < 24 || xcb_get_image_data_length(reply.get()) < width * height * 4) {
        return HLVPError(HLVPError::Code::captureFailed,
                         u"The X server did not give the picture of the screen."_s);
    }
    // 24- and 32-bit visuals come as four bytes a pixel, blue first.
    const QImage image(xcb_get_image_data(reply.get()), width, height, width * 4, QImage::Format_RGB32);
    QByteArray jpeg;
    QBuffer buffer(&jpeg);
    buffer.open(QIODevice::WriteOnly);
    if (!image.save(&buffer, "JPEG", int(std::clamp(quality, 0.0, 1.0) * 100.0))) {
        return HLVPError(HLVPError::Code::captureFailed, u"The picture could not be encoded."_s);
    }
    return ScreenCaptureMessage{displayID, quint32(width), quint32(height), jpeg, std::nullopt};
}

} // namespace

void X11ScreenCapture::captureScreen(quint32 displayID, double quality, QObject* context, Completion done) {
    QMetaObject::invokeMethod(
        context,
        [result = capture(displayID, quality), done = std::move(done)]() mutable { done(std::move(result)); },
        Qt::QueuedConnection);
}

} // namespace tellwyn
