#include "x11_screen_source.h"

#include <QMetaObject>
#include <QSocketNotifier>
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <xcb/damage.h>
#include <xcb/randr.h>
#include <xcb/shm.h>
#include <xcb/xcb.h>
#include <xcb/xfixes.h>
#include <xcb/xinput.h>

using namespace Qt::StringLiterals;

namespace tellwyn {

namespace {

template <typename T> using Reply = std::unique_ptr<T, decltype(&std::free)>;

template <typename T> Reply<T> reply(T* raw) {
    return Reply<T>(raw, &std::free);
}

} // namespace

struct X11ScreenSource::State {
    xcb_connection_t* connection = nullptr;
    xcb_window_t root = XCB_NONE;
    Listener listener;
    std::unique_ptr<QSocketNotifier> notifier;
    ScreenLayout layout;
    quint8 damageEvent = 0;
    quint8 xfixesEvent = 0;
    quint8 randrEvent = 0;
    quint8 xinputOpcode = 0;
    bool hasXInput = false;
    bool hasRandrMonitors = false;
    xcb_damage_damage_t damage = XCB_NONE;
    // Shared memory the server writes pictures into; none when it cannot attach it.
    int shmID = -1;
    void* shmAddress = nullptr;
    std::size_t shmBytes = 0;
    xcb_shm_seg_t shmSegment = XCB_NONE;
    bool useShm = false;
    bool drainQueued = false;

    ~State() {
        notifier.reset();
        detachShm();
        if (connection != nullptr) {
            xcb_disconnect(connection);
        }
    }

    void detachShm() {
        if (shmSegment != XCB_NONE && connection != nullptr) {
            xcb_shm_detach(connection, shmSegment);
            shmSegment = XCB_NONE;
        }
        if (shmAddress != nullptr) {
            shmdt(shmAddress);
            shmAddress = nullptr;
        }
        shmBytes = 0;
    }

    bool attachShm(std::size_t bytes) {
        detachShm();
        shmID = shmget(IPC_PRIVATE, bytes, IPC_CREAT | 0600);
        if (shmID < 0) {
            return false;
        }
        shmAddress = shmat(shmID, nullptr, 0);
        if (shmAddress == reinterpret_cast<void*>(-1)) {
            shmAddress = nullptr;
            shmctl(shmID, IPC_RMID, nullptr);
            return false;
        }
        shmSegment = xcb_generate_id(connection);
        const auto error = reply(xcb_request_check(
            connection, xcb_shm_attach_checked(connection, shmSegment, static_cast<quint32>(shmID), 0)));
        // Marked for removal now: it goes away with the last process that detaches it.
        shmctl(shmID, IPC_RMID, nullptr);
        if (error) {
            shmSegment = XCB_NONE;
            shmdt(shmAddress);
            shmAddress = nullptr;
            return false;
        }
        shmBytes = bytes;
        return true;
    }

    quint8 firstEvent(xcb_extension_t* extension) const {
        const xcb_query_extension_reply_t* data = xcb_get_extension_data(connection, extension);
        return data != nullptr && data->present != 0 ? data->first_event : 0;
    }

    ScreenLayout readLayout() const {
        ScreenLayout result;
        const auto geometry =
            reply(xcb_get_geometry_reply(connection, xcb_get_geometry(connection, root), nullptr));
        if (!geometry) {
            return result;
        }
        result.width = geometry->width;
        result.height = geometry->height;
        if (hasRandrMonitors) {
            const auto monitors = reply(xcb_randr_get_monitors_reply(
                connection, xcb_randr_get_monitors(connection, root, 1), nullptr));
            if (monitors) {
                for (auto it = xcb_randr_get_monitors_monitors_iterator(monitors.get()); it.rem > 0;
                     xcb_randr_monitor_info_next(&it)) {
                    const xcb_randr_monitor_info_t* info = it.data;
                    QString name;
                    if (const auto atom = reply(xcb_get_atom_name_reply(
                            connection, xcb_get_atom_name(connection, info->name), nullptr))) {
                        name = QString::fromLatin1(xcb_get_atom_name_name(atom.get()),
                                                   xcb_get_atom_name_name_length(atom.get()));
                    }
                    result.monitors.append({quint32(std::max<int>(info->x, 0)),
                                            quint32(std::max<int>(info->y, 0)), info->width, info->height,
                                            name, info->primary != 0});
                }
            }
        }
        if (result.monitors.isEmpty()) {
            result.monitors.append({0, 0, quint32(result.width), quint32(result.height), QString(), true});
        }
        std::stable_sort(
            result.monitors.begin(), result.monitors.end(),
            [](const HLVPScreenMonitor& a, const HLVPScreenMonitor& b) { return a.primary && !b.primary; });
        if (std::none_of(result.monitors.begin(), result.monitors.end(),
                         [](const HLVPScreenMonitor& m) { return m.primary; })) {
            result.monitors.first().primary = true;
        }
        return result;
    }

    void queueDrain() {
        // Replies we waited for may have brought events along, which the socket will not signal.
        if (drainQueued || !notifier) {
            return;
        }
        drainQueued = true;
        QMetaObject::invokeMethod(
            notifier.get(), [this] { processEvents(); }, Qt::QueuedConnection);
    }

    void processEvents() {
        drainQueued = false;
        bool layoutChanged = false;
        bool pointerMoved = false;
        bool cursorChanged = false;
        while (xcb_generic_event_t* raw = xcb_poll_for_event(connection)) {
            const auto event = reply(raw);
            const quint8 type = event->response_type & 0x7F;
            if (damageEvent != 0 && type == damageEvent + XCB_DAMAGE_NOTIFY) {
                const auto* notify = reinterpret_cast<const xcb_damage_notify_event_t*>(event.get());
                if (listener.damaged) {
                    listener.damaged(
                        QRect(notify->area.x, notify->area.y, notify->area.width, notify->area.height));
                }
            } else if (xfixesEvent != 0 && type == xfixesEvent + XCB_XFIXES_CURSOR_NOTIFY) {
                cursorChanged = true;
            } else if (randrEvent != 0 && (type == randrEvent + XCB_RANDR_SCREEN_CHANGE_NOTIFY ||
                                           type == randrEvent + XCB_RANDR_NOTIFY)) {
                layoutChanged = true;
            } else if (type == XCB_CONFIGURE_NOTIFY) {
                layoutChanged = true;
            } else if (type == XCB_GE_GENERIC && hasXInput) {
                const auto* generic = reinterpret_cast<const xcb_ge_generic_event_t*>(event.get());
                if (generic->extension == xinputOpcode && generic->event_type == XCB_INPUT_RAW_MOTION) {
                    pointerMoved = true;
                }
            }
        }
        if (xcb_connection_has_error(connection) != 0) {
            notifier->setEnabled(false);
            if (listener.lost) {
                listener.lost(u"The X display closed the connection."_s);
            }
            return;
        }
        if (layoutChanged) {
            layout = readLayout();
            if (listener.layoutChanged) {
                listener.layoutChanged();
            }
        }
        if (cursorChanged && listener.cursorChanged) {
            listener.cursorChanged();
        }
        if (pointerMoved && listener.pointerMoved) {
            const auto where =
                reply(xcb_query_pointer_reply(connection, xcb_query_pointer(connection, root), nullptr));
            if (where) {
                listener.pointerMoved(where->root_x, where->root_y);
            }
        }
        xcb_flush(connection);
    }
};

X11ScreenSource::X11ScreenSource() : d(std::make_unique<State>()) {
}

X11ScreenSource::~X11ScreenSource() = default;

std::optional<ScreenSource::Failure> X11ScreenSource::start(Listener listener) {
    const QByteArray display = qgetenv("DISPLAY");
    if (display.isEmpty()) {
        return Failure{u"noDisplay"_s, u"There is no X display to capture."_s};
    }
    int screenNumber = 0;
    d->connection = xcb_connect(display.constData(), &screenNumber);
    if (xcb_connection_has_error(d->connection) != 0) {
        return Failure{u"noDisplay"_s,
                       u"The X display %1 cannot be reached."_s.arg(QString::fromLocal8Bit(display))};
    }
    auto screens = xcb_setup_roots_iterator(xcb_get_setup(d->connection));
    for (int i = 0; i < screenNumber && screens.rem > 0; ++i) {
        xcb_screen_next(&screens);
    }
    if (screens.rem == 0) {
        return Failure{u"noDisplay"_s, u"The X display has no screen %1."_s.arg(screenNumber)};
    }
    const xcb_screen_t* screen = screens.data;
    d->root = screen->root;
    if (screen->root_depth != 24 && screen->root_depth != 32) {
        return Failure{u"noDisplay"_s,
                       u"The X display's depth of %1 bits cannot be streamed."_s.arg(screen->root_depth)};
    }
    d->listener = std::move(listener);

    // DAMAGE is what keeps a still screen free of work; without it there is no stream.
    d->damageEvent = d->firstEvent(&xcb_damage_id);
    d->xfixesEvent = d->firstEvent(&xcb_xfixes_id);
    if (d->damageEvent == 0 || d->xfixesEvent == 0) {
        return Failure{u"noDisplay"_s, u"The X display lacks the DAMAGE or XFIXES extension."_s};
    }
    free(xcb_xfixes_query_version_reply(d->connection, xcb_xfixes_query_version(d->connection, 4, 0),
                                        nullptr));
    free(xcb_damage_query_version_reply(d->connection, xcb_damage_query_version(d->connection, 1, 1),
                                        nullptr));
    d->damage = xcb_generate_id(d->connection);
    xcb_damage_create(d->connection, d->damage, d->root, XCB_DAMAGE_REPORT_LEVEL_RAW_RECTANGLES);
    xcb_xfixes_select_cursor_input(d->connection, d->root, XCB_XFIXES_CURSOR_NOTIFY_MASK_DISPLAY_CURSOR);
    const quint32 structure = XCB_EVENT_MASK_STRUCTURE_NOTIFY;
    xcb_change_window_attributes(d->connection, d->root, XCB_CW_EVENT_MASK, &structure);

    d->randrEvent = d->firstEvent(&xcb_randr_id);
    if (d->randrEvent != 0) {
        const auto version = reply(xcb_randr_query_version_reply(
            d->connection, xcb_randr_query_version(d->connection, 1, 5), nullptr));
        d->hasRandrMonitors = version && (version->major_version > 1 || version->minor_version >= 5);
        xcb_randr_select_input(d->connection, d->root,
                               XCB_RANDR_NOTIFY_MASK_SCREEN_CHANGE | XCB_RANDR_NOTIFY_MASK_CRTC_CHANGE |
                                   XCB_RANDR_NOTIFY_MASK_OUTPUT_CHANGE);
    }

    if (const xcb_query_extension_reply_t* xinput = xcb_get_extension_data(d->connection, &xcb_input_id);
        xinput != nullptr && xinput->present != 0) {
        const auto version = reply(xcb_input_xi_query_version_reply(
            d->connection, xcb_input_xi_query_version(d->connection, 2, 0), nullptr));
        if (version && version->major_version >= 2) {
            d->hasXInput = true;
            d->xinputOpcode = xinput->major_opcode;
            struct {
                xcb_input_event_mask_t head;
                quint32 mask;
            } select{{XCB_INPUT_DEVICE_ALL_MASTER, 1}, XCB_INPUT_XI_EVENT_MASK_RAW_MOTION};
            xcb_input_xi_select_events(d->connection, d->root, 1, &select.head);
        }
    }

    const xcb_query_extension_reply_t* shm = xcb_get_extension_data(d->connection, &xcb_shm_id);
    d->useShm = shm != nullptr && shm->present != 0;

    d->layout = d->readLayout();
    if (d->layout.width == 0) {
        return Failure{u"noDisplay"_s, u"The X display did not give its size."_s};
    }
    xcb_flush(d->connection);
    d->notifier =
        std::make_unique<QSocketNotifier>(xcb_get_file_descriptor(d->connection), QSocketNotifier::Read);
    QObject::connect(d->notifier.get(), &QSocketNotifier::activated, d->notifier.get(),
                     [state = d.get()] { state->processEvents(); });
    d->queueDrain();
    return std::nullopt;
}

ScreenLayout X11ScreenSource::layout() const {
    return d->layout;
}

bool X11ScreenSource::read(const QRect& wanted, PixelBuffer& into) {
    const QRect area = wanted.intersected(
        QRect(0, 0, std::min(into.width, d->layout.width), std::min(into.height, d->layout.height)));
    if (area.isEmpty()) {
        return true;
    }
    const std::size_t bytes = std::size_t(area.width()) * std::size_t(area.height()) * 4;
    const auto copyRows = [&](const quint8* data, std::size_t length) {
        if (length < bytes) {
            return false;
        }
        for (int y = 0; y < area.height(); ++y) {
            const auto* source =
                reinterpret_cast<const quint32*>(data + static_cast<std::size_t>(y * area.width()) * 4);
            quint32* target = into.row(area.y() + y) + area.x();
            // The fourth byte is padding (or alpha on a 32-bit root): never part of the colour.
            for (int x = 0; x < area.width(); ++x) {
                target[x] = source[x] & 0xFFFFFFU;
            }
        }
        return true;
    };
    d->queueDrain();
    if (d->useShm) {
        const std::size_t full = std::size_t(d->layout.width) * std::size_t(d->layout.height) * 4;
        if (d->shmBytes < bytes && !d->attachShm(std::max(full, bytes))) {
            d->useShm = false;
        }
    }
    if (d->useShm) {
        const auto image = reply(xcb_shm_get_image_reply(
            d->connection,
            xcb_shm_get_image(d->connection, d->root, qint16(area.x()), qint16(area.y()),
                              quint16(area.width()), quint16(area.height()), ~0U, XCB_IMAGE_FORMAT_Z_PIXMAP,
                              d->shmSegment, 0),
            nullptr));
        return image && copyRows(static_cast<const quint8*>(d->shmAddress), d->shmBytes);
    }
    const auto image = reply(xcb_get_image_reply(
        d->connection,
        xcb_get_image(d->connection, XCB_IMAGE_FORMAT_Z_PIXMAP, d->root, qint16(area.x()), qint16(area.y()),
                      quint16(area.width()), quint16(area.height()), ~0U),
        nullptr));
    return image &&
           copyRows(xcb_get_image_data(image.get()), std::size_t(xcb_get_image_data_length(image.get())));
}

CursorImage X11ScreenSource::cursor() {
    CursorImage result;
    const auto image = reply(xcb_xfixes_get_cursor_image_reply(
        d->connection, xcb_xfixes_get_cursor_image(d->connection), nullptr));
    d->queueDrain();
    if (!image || image->width == 0 || image->height == 0) {
        return result;
    }
    result.serial = image->cursor_serial;
    result.width = std::min<quint32>(image->width, 256);
    result.height = std::min<quint32>(image->height, 256);
    result.hotX = std::min<quint32>(image->xhot, result.width - 1);
    result.hotY = std::min<quint32>(image->yhot, result.height - 1);
    const quint32* pixels = xcb_xfixes_get_cursor_image_cursor_image(image.get());
    result.pixels.resize(qsizetype(result.width * result.height * 4));
    auto* out = reinterpret_cast<quint8*>(result.pixels.data());
    for (quint32 y = 0; y < result.height; ++y) {
        for (quint32 x = 0; x < result.width; ++x) {
            const quint32 argb = pixels[y * image->width + x];
            *out++ = quint8(argb >> 24);
            *out++ = quint8(argb >> 16);
            *out++ = quint8(argb >> 8);
            *out++ = quint8(argb);
        }
    }
    return result;
}

std::optional<QPoint> X11ScreenSource::pointer() {
    const auto where =
        reply(xcb_query_pointer_reply(d->connection, xcb_query_pointer(d->connection, d->root), nullptr));
    d->queueDrain();
    return where ? std::optional<QPoint>(QPoint(where->root_x, where->root_y)) : std::nullopt;
}

} // namespace tellwyn
