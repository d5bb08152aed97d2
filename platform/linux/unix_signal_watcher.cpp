#include "unix_signal_watcher.h"

#include <QSocketNotifier>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace tellwyn {

namespace {

int signalPipe[2] = {-1, -1};

extern "C" void forwardSignal(int signalNumber) {
    const int savedErrno = errno;
    const auto byte = static_cast<unsigned char>(signalNumber);
    [[maybe_unused]] const ssize_t written = ::write(signalPipe[1], &byte, 1);
    errno = savedErrno;
}

} // namespace

UnixSignalWatcher::UnixSignalWatcher(QObject* parent) : QObject(parent) {
    if (::pipe2(signalPipe, O_CLOEXEC | O_NONBLOCK) != 0) {
        return;
    }
    m_notifier = new QSocketNotifier(signalPipe[0], QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, [this] {
        unsigned char byte = 0;
        while (::read(signalPipe[0], &byte, 1) == 1) {
            Q_EMIT terminationRequested(byte);
        }
    });
    struct sigaction action {};
    action.sa_handler = forwardSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);
}

UnixSignalWatcher::~UnixSignalWatcher() {
    ::signal(SIGINT, SIG_DFL);
    ::signal(SIGTERM, SIG_DFL);
}

} // namespace tellwyn
