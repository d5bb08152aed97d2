#include "avahi_qt_poll.h"

#include <QObject>
#include <QSocketNotifier>
#include <QTimer>
#include <chrono>
#include <sys/time.h>

// The callback structs are declared opaque by Avahi; each poll implementation defines them.
struct AvahiWatch : QObject {
    AvahiWatch(int fd, AvahiWatchEvent wanted, AvahiWatchCallback callback, void* userdata)
        : m_read(fd, QSocketNotifier::Read), m_write(fd, QSocketNotifier::Write), m_fd(fd),
          m_callback(callback), m_userdata(userdata) {
        QObject::connect(&m_read, &QSocketNotifier::activated, this, [this] { dispatch(AVAHI_WATCH_IN); });
        QObject::connect(&m_write, &QSocketNotifier::activated, this, [this] { dispatch(AVAHI_WATCH_OUT); });
        update(wanted);
    }

    void update(AvahiWatchEvent wanted) {
        // A hang-up or error shows as readable, so watching for them alone still needs the read side.
        const unsigned bits = static_cast<unsigned>(wanted);
        m_read.setEnabled(!m_freed && (bits & (AVAHI_WATCH_IN | AVAHI_WATCH_ERR | AVAHI_WATCH_HUP)) != 0);
        m_write.setEnabled(!m_freed && (bits & AVAHI_WATCH_OUT) != 0);
    }

    void dispatch(AvahiWatchEvent event) {
        if (m_freed) {
            return;
        }
        m_lastEvents = event;
        m_callback(this, m_fd, event, m_userdata);
        m_lastEvents = AvahiWatchEvent(0);
    }

    // Avahi may free a watch from inside its own callback, so deletion waits for the event loop.
    void release() {
        m_freed = true;
        m_read.setEnabled(false);
        m_write.setEnabled(false);
        deleteLater();
    }

    QSocketNotifier m_read;
    QSocketNotifier m_write;
    int m_fd;
    AvahiWatchCallback m_callback;
    void* m_userdata;
    AvahiWatchEvent m_lastEvents = AvahiWatchEvent(0);
    bool m_freed = false;
};

struct AvahiTimeout : QObject {
    AvahiTimeout(const struct timeval* tv, AvahiTimeoutCallback callback, void* userdata)
        : m_callback(callback), m_userdata(userdata) {
        m_timer.setSingleShot(true);
        m_timer.setTimerType(Qt::PreciseTimer);
        QObject::connect(&m_timer, &QTimer::timeout, this, [this] {
            if (!m_freed) {
                m_callback(this, m_userdata);
            }
        });
        update(tv);
    }

    // `tv` is an absolute time on the wall clock, as Avahi's timeval helpers compute it.
    void update(const struct timeval* tv) {
        m_timer.stop();
        if (tv == nullptr || m_freed) {
            return;
        }
        struct timeval now {};
        gettimeofday(&now, nullptr);
        const auto due = std::chrono::seconds(tv->tv_sec) + std::chrono::microseconds(tv->tv_usec);
        const auto current = std::chrono::seconds(now.tv_sec) + std::chrono::microseconds(now.tv_usec);
        const auto delay = std::chrono::ceil<std::chrono::milliseconds>(due - current);
        m_timer.start(std::max(delay, std::chrono::milliseconds(0)));
    }

    void release() {
        m_freed = true;
        m_timer.stop();
        deleteLater();
    }

    QTimer m_timer;
    AvahiTimeoutCallback m_callback;
    void* m_userdata;
    bool m_freed = false;
};

namespace tellwyn {

namespace {

AvahiWatch* watchNew(const AvahiPoll*, int fd, AvahiWatchEvent event, AvahiWatchCallback callback,
                     void* userdata) {
    return new AvahiWatch(fd, event, callback, userdata);
}

void watchUpdate(AvahiWatch* watch, AvahiWatchEvent event) {
    watch->update(event);
}

AvahiWatchEvent watchGetEvents(AvahiWatch* watch) {
    return watch->m_lastEvents;
}

void watchFree(AvahiWatch* watch) {
    watch->release();
}

AvahiTimeout* timeoutNew(const AvahiPoll*, const struct timeval* tv, AvahiTimeoutCallback callback,
                         void* userdata) {
    return new AvahiTimeout(tv, callback, userdata);
}

void timeoutUpdate(AvahiTimeout* timeout, const struct timeval* tv) {
    timeout->update(tv);
}

void timeoutFree(AvahiTimeout* timeout) {
    timeout->release();
}

} // namespace

AvahiQtPoll::AvahiQtPoll()
    : m_poll{nullptr,   watchNew,   watchUpdate,   watchGetEvents,
             watchFree, timeoutNew, timeoutUpdate, timeoutFree} {
}

} // namespace tellwyn
