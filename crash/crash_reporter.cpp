#include "crash_reporter.h"

#include "alternate_signal_stack.h"
#include "crash_record.h"
#include "crash_report.h"

#include <QCoreApplication>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <cxxabi.h>
#include <exception>
#include <execinfo.h>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/ucontext.h>
#include <system_error>
#include <time.h>
#include <typeinfo>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace tellwyn {

namespace {

// Process-wide state. Everything the handlers read is prepared by `install`; at crash time only
// the record's crash fields are written, by the one thread that claimed the report.
bool g_installed = false;
std::terminate_handler g_previousTerminate = nullptr;
CrashRecord g_record;
void* g_frames[CrashRecord::maxFrames];
std::atomic<pid_t> g_reportingThread{0};
static_assert(std::atomic<pid_t>::is_always_lock_free);

char g_helperProgram[256];
char g_helperDescriptorText[16];
char* g_helperArguments[4];
std::vector<std::string>* g_environmentText = nullptr;
std::vector<char*>* g_environment = nullptr;

// --- async-signal-safe helpers ----------------------------------------------------------------

void copyText(char* target, std::size_t capacity, const char* source) {
    std::size_t i = 0;
    for (; source != nullptr && source[i] != '\0' && i + 1 < capacity; ++i) {
        target[i] = source[i];
    }
    target[i] = '\0';
}

void copyNumber(char* target, std::size_t capacity, long long value) {
    char digits[24];
    std::size_t count = 0;
    const bool negative = value < 0;
    unsigned long long magnitude =
        negative ? 0ULL - static_cast<unsigned long long>(value) : static_cast<unsigned long long>(value);
    do {
        digits[count++] = static_cast<char>('0' + magnitude % 10);
        magnitude /= 10;
    } while (magnitude != 0);
    std::size_t at = 0;
    if (negative && at + 1 < capacity) {
        target[at++] = '-';
    }
    while (count > 0 && at + 1 < capacity) {
        target[at++] = digits[--count];
    }
    target[at] = '\0';
}

std::int64_t monotonicNow() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

void sleepFor(std::int64_t nanoseconds) {
    timespec remaining{static_cast<time_t>(nanoseconds / 1'000'000'000),
                       static_cast<long>(nanoseconds % 1'000'000'000)};
    while (nanosleep(&remaining, &remaining) != 0 && errno == EINTR) {
    }
}

// A helper that is already gone must not end the process by SIGPIPE instead of its own signal.
bool sendAll(int descriptor, const void* data, std::size_t size) {
    const char* bytes = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t written = send(descriptor, bytes, size, MSG_NOSIGNAL);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            return false;
        }
        bytes += written;
        size -= static_cast<std::size_t>(written);
    }
    return true;
}

enum class Claim { first, again, other };

// Only one thread reports. The same thread crashing again (inside the report, or the abort that
// follows a reported exception) goes straight to dying; another thread waits for the report.
Claim claimReport() {
    const auto self = static_cast<pid_t>(syscall(SYS_gettid));
    pid_t expected = 0;
    if (g_reportingThread.compare_exchange_strong(expected, self)) {
        return Claim::first;
    }
    return expected == self ? Claim::again : Claim::other;
}

void captureTimeAndStack() {
    g_record.pid = getpid(); // the crashed process, also when it is a fork of the one that installed
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    g_record.seconds = now.tv_sec;
    g_record.nanoseconds = now.tv_nsec;
    const int count = backtrace(g_frames, CrashRecord::maxFrames);
    g_record.frameCount = static_cast<std::uint32_t>(count > 0 ? count : 0);
    for (std::uint32_t i = 0; i < g_record.frameCount; ++i) {
        g_record.frames[i] = reinterpret_cast<std::uintptr_t>(g_frames[i]);
    }
}

void waitForHelper(int descriptor) {
    CrashWait wait(monotonicNow());
    while (!wait.finished()) {
        const std::int64_t now = monotonicNow();
        if (now >= wait.deadline()) {
            wait.onTimeout(now);
            continue;
        }
        pollfd answer{descriptor, POLLIN, 0};
        const auto milliseconds = static_cast<int>((wait.deadline() - now + 999'999) / 1'000'000);
        const int ready = poll(&answer, 1, milliseconds);
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready < 0) {
            wait.onHelperGone();
            break;
        }
        if (ready == 0) {
            continue;
        }
        char messages[16];
        const ssize_t count = read(descriptor, messages, sizeof messages);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            wait.onHelperGone();
            break;
        }
        for (ssize_t i = 0; i < count; ++i) {
            wait.onMessage(messages[i], monotonicNow());
        }
    }
}

// Starts the helper, hands it the record and waits for it; then the final pause.
void reportThroughHelper() {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0) {
        // _Fork skips the fork handlers, which take locks (malloc's among them) that the crashed
        // code may hold.
        const pid_t child = _Fork();
        if (child == 0) {
            const int target = CrashReporter::helperDescriptor;
            if (ends[1] == target) {
                fcntl(target, F_SETFD, 0);
            } else {
                dup2(ends[1], target);
            }
            syscall(SYS_close_range, static_cast<unsigned>(target + 1), ~0U, 0U);
            sigset_t none;
            sigemptyset(&none);
            sigprocmask(SIG_SETMASK, &none, nullptr);
            execve("/proc/self/exe", g_helperArguments, g_environment->data());
            _exit(127);
        }
        close(ends[1]);
        if (child > 0 && sendAll(ends[0], &g_record, sizeof g_record)) {
            waitForHelper(ends[0]);
        }
        close(ends[0]);
    }
    sleepFor(CrashWait::finalPause);
}

void dieBy(int signal) {
    struct sigaction defaultAction {};
    defaultAction.sa_handler = SIG_DFL;
    sigemptyset(&defaultAction.sa_mask);
    sigaction(signal, &defaultAction, nullptr);
    raise(signal);
}

std::uint64_t interruptedInstruction(const void* context) {
    const auto* machine = &static_cast<const ucontext_t*>(context)->uc_mcontext;
#if defined(__x86_64__)
    return static_cast<std::uint64_t>(machine->gregs[REG_RIP]);
#elif defined(__aarch64__)
    return machine->pc;
#else
    static_cast<void>(machine);
    return 0;
#endif
}

void onSignal(int signal, siginfo_t*, void* context) {
    const int savedErrno = errno;
    switch (claimReport()) {
    case Claim::first:
        g_record.signal = signal;
        g_record.isException = 0;
        g_record.instructionAddress = context != nullptr ? interruptedInstruction(context) : 0;
        captureTimeAndStack();
        reportThroughHelper();
        break;
    case Claim::other:
        sleepFor(CrashWait::helperStartLimit + CrashWait::uploadLimit + CrashWait::alertStartLimit +
                 CrashWait::alertLimit + CrashWait::finalPause + 1'000'000'000);
        break;
    case Claim::again:
        break;
    }
    // Blocked while this handler runs, the signal is delivered again on return, with the default
    // action, so the process ends by it.
    dieBy(signal);
    errno = savedErrno;
}

void addUserInfo(const char* key, const char* value) {
    if (g_record.userInfoCount < CrashRecord::maxUserInfo) {
        auto& entry = g_record.userInfo[g_record.userInfoCount++];
        copyText(entry[0], sizeof entry[0], key);
        copyText(entry[1], sizeof entry[1], value);
    }
}

// Reads the current exception without allocating: its type name, `what()`, and for a
// `std::system_error` its code and category as user info.
void describeCurrentException(const std::type_info& type) {
    const char* name = type.name();
    copyText(g_record.exceptionType, sizeof g_record.exceptionType, name[0] == '*' ? name + 1 : name);
    try {
        throw;
    } catch (const std::system_error& error) {
        g_record.hasReason = 1;
        copyText(g_record.exceptionReason, sizeof g_record.exceptionReason, error.what());
        g_record.hasUserInfo = 1;
        char code[24];
        copyNumber(code, sizeof code, error.code().value());
        addUserInfo("code", code);
        addUserInfo("category", error.code().category().name());
    } catch (const std::exception& error) {
        g_record.hasReason = 1;
        copyText(g_record.exceptionReason, sizeof g_record.exceptionReason, error.what());
    } catch (...) {
    }
}

[[noreturn]] void onTerminate() {
    const std::terminate_handler previous = g_previousTerminate;
    // Only an uncaught exception is reported here; a bare std::terminate() aborts, and the abort
    // is reported as a signal.
    if (const std::type_info* type = abi::__cxa_current_exception_type(); type != nullptr) {
        if (claimReport() == Claim::first) {
            g_record.signal = 0;
            g_record.isException = 1;
            captureTimeAndStack();
            describeCurrentException(*type);
            reportThroughHelper();
        }
    }
    if (previous != nullptr) {
        previous();
    }
    std::abort();
}

void prepareHelper() {
    copyText(g_helperProgram, sizeof g_helperProgram, program_invocation_name);
    copyNumber(g_helperDescriptorText, sizeof g_helperDescriptorText, CrashReporter::helperDescriptor);
    g_helperArguments[0] = g_helperProgram;
    g_helperArguments[1] = const_cast<char*>(CrashReporter::helperOption);
    g_helperArguments[2] = g_helperDescriptorText;
    g_helperArguments[3] = nullptr;

    // The helper gets the environment as it is now; the handler cannot read it safely later.
    delete g_environment;
    delete g_environmentText;
    g_environmentText = new std::vector<std::string>;
    g_environment = new std::vector<char*>;
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
        g_environmentText->emplace_back(*entry);
    }
    for (std::string& entry : *g_environmentText) {
        g_environment->push_back(entry.data());
    }
    g_environment->push_back(nullptr);
}

void prepareRecord() {
    g_record = CrashRecord{};
    copyText(g_record.applicationName, sizeof g_record.applicationName, TELLWYN_PRODUCT_NAME);
    copyText(g_record.version, sizeof g_record.version, TELLWYN_VERSION);
    copyText(g_record.osVersion, sizeof g_record.osVersion,
             operatingSystemVersionText().toUtf8().constData());
    const QCoreApplication* application = QCoreApplication::instance();
    g_record.hasUserInterface = application != nullptr && application->inherits("QGuiApplication") ? 1 : 0;
}

} // namespace

void CrashReporter::install() {
    if (g_installed) {
        return;
    }
    g_installed = true;

    prepareRecord();
    prepareHelper();
    ensureAlternateSignalStack();
    // The first backtrace loads the unwinder, which allocates; it must not happen in the handler.
    backtrace(g_frames, 1);
    g_reportingThread.store(0);

    g_previousTerminate = std::get_terminate();
    std::set_terminate(&onTerminate);

    struct sigaction action {};
    action.sa_sigaction = &onSignal;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    sigemptyset(&action.sa_mask);
    for (const int signal : handledSignals) {
        sigaction(signal, &action, nullptr);
    }
}

void CrashReporter::uninstall() {
    if (!g_installed) {
        return;
    }
    g_installed = false;
    // No handler of ours any more: the runtime's default, not the one found at install.
    std::set_terminate(nullptr);
    g_previousTerminate = nullptr;
    for (const int signal : handledSignals) {
        std::signal(signal, SIG_DFL);
    }
}

bool CrashReporter::isInstalled() {
    return g_installed;
}

} // namespace tellwyn
