// Crashes on purpose, in the way named by its first argument, with the crash reporter installed.
// Run by the crash reporter's integration tests; it is also its own crash helper.
//
//   crashing_program HOW [--gui]

#include "crash_reporter.h"
#include "serial_queue.h"

#include <QCoreApplication>
#include <QGuiApplication>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <pthread.h>
#include <random>
#include <stdexcept>
#include <string>
#include <sys/mman.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace tellwyn;
using namespace Qt::StringLiterals;

namespace {

volatile int g_sink = 0;

[[gnu::noinline]] void crashBySegmentationFault() {
    // Through a volatile pointer, so that the compiler cannot see that it is null.
    volatile int* volatile address = nullptr;
    *address = 1;
}

[[gnu::noinline]] void crashByBusError() {
    // Touching a mapped page beyond the end of its file.
    FILE* file = std::tmpfile();
    void* page = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, fileno(file), 0);
    static_cast<volatile char*>(page)[0] = 1;
}

[[gnu::noinline]] void crashByDivision() {
    volatile int dividend = 1;
    volatile int zero = 0;
    g_sink = dividend / zero;
}

[[gnu::noinline]] void crashByIllegalInstruction() {
    __builtin_trap();
}

[[gnu::noinline]] void crashByTrap() {
#if defined(__x86_64__) || defined(__i386__)
    __asm__ volatile("int3");
#else
    std::raise(SIGTRAP);
#endif
}

[[gnu::noinline]] void crashByAbort() {
    std::abort();
}

[[gnu::noinline]] void throwRuntimeError() {
    throw std::runtime_error("the widget count went negative");
}

[[gnu::noinline]] void throwSystemError() {
    throw std::system_error(std::make_error_code(std::errc::connection_refused), "connecting to the feed");
}

[[gnu::noinline]] void throwInteger() {
    throw 42;
}

volatile int g_depthLimit = 1 << 30; // deeper than any stack

[[gnu::noinline]] int overflowStack(int depth) {
    volatile char frame[512];
    frame[0] = static_cast<char>(depth);
    if (depth >= g_depthLimit) {
        return frame[0];
    }
    return overflowStack(depth + 1) + frame[0];
}

// Threads that do nothing but allocate and free, so that a crash finds the heap busy (and often
// locked by the crashing thread itself).
std::vector<std::thread> startAllocating(std::atomic<bool>& stop, int count) {
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i) {
        threads.emplace_back([&stop, i] {
            std::minstd_rand random(static_cast<unsigned>(i + 1));
            std::vector<std::unique_ptr<char[]>> blocks(64);
            while (!stop.load(std::memory_order_relaxed)) {
                const std::size_t slot = random() % blocks.size();
                // Mostly beyond the per-thread cache, so that the heap lock is taken and held often.
                blocks[slot] = std::make_unique_for_overwrite<char[]>(16 + random() % 65536);
                blocks[slot][0] = 1;
            }
        });
    }
    return threads;
}

[[gnu::noinline]] void crashWhileOthersAllocate(bool fromWorker) {
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads = startAllocating(stop, 4);
    std::minstd_rand random(static_cast<unsigned>(getpid()));
    std::this_thread::sleep_for(std::chrono::milliseconds(5 + random() % 20));
    if (fromWorker) {
        // Delivered to a thread in the middle of its allocations.
        pthread_kill(threads[random() % threads.size()].native_handle(), SIGSEGV);
        std::this_thread::sleep_for(std::chrono::seconds(60));
    } else {
        crashBySegmentationFault();
    }
    stop = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
}

} // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::strcmp(argv[1], CrashReporter::helperOption) == 0) {
        return CrashReporter::runHelper(std::atoi(argv[2]), argc, argv);
    }
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s HOW [--gui]\n", argv[0]);
        return 2;
    }
    const std::string how = argv[1];
    bool gui = false;
    for (int i = 2; i < argc; ++i) {
        gui = gui || std::strcmp(argv[i], "--gui") == 0;
    }
    std::unique_ptr<QGuiApplication> application;
    if (gui) {
        application = std::make_unique<QGuiApplication>(argc, argv);
    }
    CrashReporter::install();

    if (how == "segv") {
        crashBySegmentationFault();
    } else if (how == "bus") {
        crashByBusError();
    } else if (how == "fpe") {
        crashByDivision();
    } else if (how == "ill") {
        crashByIllegalInstruction();
    } else if (how == "trap") {
        crashByTrap();
    } else if (how == "abort") {
        crashByAbort();
    } else if (how == "runtime-error") {
        throwRuntimeError();
    } else if (how == "system-error") {
        throwSystemError();
    } else if (how == "int") {
        throwInteger();
    } else if (how == "overflow") {
        g_sink = overflowStack(0);
    } else if (how == "worker-overflow") {
        // On one of the agent's own worker threads, whose stack is smaller than the main one.
        QCoreApplication events(argc, argv);
        SerialQueue queue(u"crashing-program.worker"_s);
        queue.async([] { g_sink = overflowStack(0); });
        return QCoreApplication::exec();
    } else if (how == "stress") {
        crashWhileOthersAllocate(false);
    } else if (how == "stress-kill") {
        crashWhileOthersAllocate(true);
    } else {
        std::fprintf(stderr, "unknown crash '%s'\n", how.c_str());
        return 2;
    }
    return 0;
}
