#include "alternate_signal_stack.h"

#include <algorithm>
#include <csignal>
#include <cstddef>
#include <sys/mman.h>
#include <unistd.h>

namespace tellwyn {

namespace {

class AlternateSignalStack {
public:
    AlternateSignalStack() {
        const long page = sysconf(_SC_PAGESIZE);
        const long minimum = sysconf(_SC_SIGSTKSZ);
        m_guard = static_cast<std::size_t>(page);
        m_size = static_cast<std::size_t>(std::max(64L * 1024, minimum * 4));
        void* memory =
            mmap(nullptr, m_guard + m_size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED) {
            return;
        }
        // A guard page below, so that overflowing the handler's own stack faults instead of
        // writing on.
        mprotect(memory, m_guard, PROT_NONE);
        stack_t stack{};
        stack.ss_sp = static_cast<char*>(memory) + m_guard;
        stack.ss_size = m_size;
        if (sigaltstack(&stack, nullptr) != 0) {
            munmap(memory, m_guard + m_size);
            return;
        }
        m_memory = memory;
    }
    ~AlternateSignalStack() {
        if (m_memory == nullptr) {
            return;
        }
        stack_t off{};
        off.ss_flags = SS_DISABLE;
        sigaltstack(&off, nullptr);
        munmap(m_memory, m_guard + m_size);
    }
    AlternateSignalStack(const AlternateSignalStack&) = delete;
    AlternateSignalStack& operator=(const AlternateSignalStack&) = delete;

private:
    void* m_memory = nullptr;
    std::size_t m_guard = 0;
    std::size_t m_size = 0;
};

} // namespace

void ensureAlternateSignalStack() {
    thread_local AlternateSignalStack stack;
    static_cast<void>(stack);
}

} // namespace tellwyn
