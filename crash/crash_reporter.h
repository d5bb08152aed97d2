#pragma once

#include <QString>
#include <array>
#include <csignal>

namespace tellwyn {

// Reports fatal signals and uncaught C++ exceptions: the report is uploaded to the vendor, written
// to standard error and, where the crashed process had a display, announced in an
// "Application Error" alert; then the process still ends by its signal.
//
// Nothing that allocates, locks or talks to the network runs in the crashed process. `install`
// prepares everything ahead; the handler only captures the signal, the time and the raw call
// stack with async-signal-safe calls (on an alternate stack, so that a stack overflow is reported
// too) and starts a helper process of the same binary (`helperOption` and a descriptor), which
// symbolizes the stack, builds the report, uploads it and shows the alert. The crashed thread
// waits for the helper's answers within fixed limits, then dies by its signal.
class CrashReporter {
public:
    // In the order they are given a handler.
    static constexpr std::array<int, 6> handledSignals{SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGSEGV, SIGTRAP};

    // The command-line option that runs a binary as the crash helper: `<binary> --crash-report FD`.
    static constexpr const char* helperOption = "--crash-report";
    // The descriptor on which the helper receives the crash and answers.
    static constexpr int helperDescriptor = 3;
    // Environment variable that replaces the built-in upload address (tests, packagers).
    static constexpr const char* endpointVariable = "TELLWYN_CRASH_REPORT_URL";
    // Preference that leaves the reporter off when false (the agent installs it by default).
    static constexpr const char* enabledPreference = "enableCrashReporter";

    // Puts the handlers in place; does nothing when already installed. Call it once the
    // application object exists, so that the alert knows whether the process has a display.
    static void install();
    // Puts the default actions back; does nothing when not installed.
    static void uninstall();
    static bool isInstalled();

    // The body of the helper process; returns its exit code.
    static int runHelper(int descriptor, int argc, char** argv);

    // The upload address: the environment's override, else the one the build was made with.
    static QString endpoint();
    static QString supportEmail();
};

} // namespace tellwyn
