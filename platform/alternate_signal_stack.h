#pragma once

namespace tellwyn {

// Gives the calling thread its own alternate signal stack, once, kept until the thread ends. A
// fatal-signal handler can then still run when that thread overflows its ordinary stack. Every
// thread the agent starts calls this first.
void ensureAlternateSignalStack();

} // namespace tellwyn
