#pragma once

#include <QHostAddress>
#include <QString>
#include <QStringList>
#include <optional>

namespace tellwyn {

// The agent's command line.
struct AgentOptions {
    bool headless = false;
    bool startServer = false;
    std::optional<quint16> port;
    QString configDirectory; // empty: the user's configuration folder
    QString dataDirectory;   // empty: the user's data folder
    QHostAddress listenAddress = QHostAddress::Any;
    // --check-for-updates: ask the update feed, print the outcome and end.
    bool checkForUpdates = false;
    bool downloadUpdate = false;
    std::optional<QString> updateFeedURL;
    bool crashReporter = true; // false: --no-crash-reporter
};

struct AgentOptionsParse {
    std::optional<AgentOptions> options;
    // Set when the program should end right away: the text to print and the exit code.
    QString output;
    int exitCode = 0;
};

AgentOptionsParse parseAgentOptions(const QStringList& arguments);

// The descriptor when the binary was started as the crash helper (`--crash-report FD`, hidden);
// nothing for an ordinary start.
std::optional<int> crashHelperDescriptor(int argc, char** argv);

// Whether this run, given a reachable display, shows the agent on the desktop: not with
// --headless, not for the one-off commands. The display itself is probed once, by the caller.
bool wantsDesktop(int argc, char** argv);

} // namespace tellwyn
