#include "run_tool.h"

#include <QByteArray>
#include <QStringDecoder>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace tellwyn {

namespace {

constexpr std::chrono::milliseconds graceAfterTerminate{1000};
std::atomic<quint64> startedRuns{0};
// Output beyond what the pipe holds would stall the tool until its limit, as the output is
// only read once it has ended; a larger pipe leaves room for the tools' usual answers.
constexpr int outputPipeSize = 1 << 20;

class Fd {
public:
    Fd() = default;
    explicit Fd(int fd) : m_fd(fd) {}
    ~Fd() { reset(); }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    int get() const { return m_fd; }
    void reset(int fd = -1) {
        if (m_fd >= 0) {
            ::close(m_fd);
        }
        m_fd = fd;
    }

private:
    int m_fd = -1;
};

bool makePipe(Fd& readEnd, Fd& writeEnd) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) {
        return false;
    }
    readEnd.reset(ends[0]);
    writeEnd.reset(ends[1]);
    return true;
}

// Waits up to `limit` for the child to end; true when it has ended (and was reaped).
bool waitForExit(pid_t pid, int pidfd, std::chrono::milliseconds limit) {
    if (pidfd >= 0) {
        pollfd entry{pidfd, POLLIN, 0};
        int ready = 0;
        do {
            ready = ::poll(&entry, 1, static_cast<int>(limit.count()));
        } while (ready < 0 && errno == EINTR);
        if (ready <= 0) {
            return false;
        }
        int status = 0;
        return ::waitpid(pid, &status, 0) == pid;
    }
    // Kernels without pidfd: look every 10 ms.
    for (auto waited = std::chrono::milliseconds(0); waited <= limit;
         waited += std::chrono::milliseconds(10)) {
        int status = 0;
        if (::waitpid(pid, &status, WNOHANG) == pid) {
            return true;
        }
        ::usleep(10'000);
    }
    return false;
}

QByteArray readAvailable(int fd) {
    QByteArray data;
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
    char buffer[65536];
    for (;;) {
        const ssize_t count = ::read(fd, buffer, sizeof buffer);
        if (count > 0) {
            data.append(buffer, count);
        } else if (count < 0 && errno == EINTR) {
            continue;
        } else {
            // End of file, or a descendant still holds the pipe open and nothing more is there.
            break;
        }
    }
    return data;
}

} // namespace

quint64 toolRunsStarted() {
    return startedRuns.load();
}

QString runTool(const QString& path, const QStringList& arguments, std::chrono::milliseconds timeLimit) {
    Fd outRead, outWrite, errRead, errWrite;
    if (!makePipe(outRead, outWrite) || !makePipe(errRead, errWrite)) {
        return {};
    }
    ::fcntl(outWrite.get(), F_SETPIPE_SZ, outputPipeSize);

    const QByteArray program = path.toLocal8Bit();
    std::vector<QByteArray> storage{program};
    for (const QString& argument : arguments) {
        storage.push_back(argument.toLocal8Bit());
    }
    std::vector<char*> argv;
    for (QByteArray& item : storage) {
        argv.push_back(item.data());
    }
    argv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, outWrite.get(), STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, errWrite.get(), STDERR_FILENO);
    pid_t pid = 0;
    const int spawned = ::posix_spawn(&pid, program.constData(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    outWrite.reset();
    errWrite.reset();
    if (spawned != 0) {
        return {};
    }
    ++startedRuns;

    Fd pidfd(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
    if (!waitForExit(pid, pidfd.get(), timeLimit)) {
        ::kill(pid, SIGTERM);
        if (!waitForExit(pid, pidfd.get(), graceAfterTerminate)) {
            // Not waited for any longer; killed and reaped so that no zombie is left behind.
            ::kill(pid, SIGKILL);
            int status = 0;
            ::waitpid(pid, &status, 0);
        }
        return {};
    }

    const QByteArray output = readAvailable(outRead.get());
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    QString text = decoder.decode(output);
    return decoder.hasError() ? QString() : text;
}

} // namespace tellwyn
