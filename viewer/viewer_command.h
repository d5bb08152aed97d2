#pragma once

// What every command of the viewer shares: exit codes, common options, the target agent and
// running a session. Each command lives in a file of its own and is listed in main.cpp.

#include "agent_address.h"
#include "viewer_session.h"

#include <QCommandLineOption>
#include <QCommandLineParser>
#include <QStringList>
#include <QTextStream>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>

class QObject;

namespace tellwyn {

class ServiceBrowserBackend;
class SystemIdentity;

// What the commands need from the machine. The program's main builds the implementations.
struct ViewerPlatform {
    SystemIdentity& identity; // names this viewer to the agent
    std::function<std::unique_ptr<ServiceBrowserBackend>()> makeServiceBrowser; // DNS-SD browsing
    // Runs `handler` in `context` on Ctrl-C or SIGTERM for as long as the returned object lives;
    // until then the signals keep their default action (a password prompt stays interruptible).
    std::function<std::unique_ptr<QObject>(QObject* context, std::function<void()> handler)> watchTermination;
};

extern const QString exitCodesText;

struct CommonOptions {
    QCommandLineOption help{{QStringLiteral("h"), QStringLiteral("help")},
                            QStringLiteral("Show this help and exit.")};
    QCommandLineOption name{
        QStringLiteral("name"),
        QStringLiteral("The name this viewer gives the agent (default: this computer's name)."),
        QStringLiteral("NAME")};
    QCommandLineOption knownAgents{
        QStringLiteral("known-agents"),
        QStringLiteral("Pin agents in FILE instead of ~/.config/tellwyn/known_agents."),
        QStringLiteral("FILE")};
};

// Prints the mistake and a hint; returns the usage exit code.
int usageError(QTextStream& err, const QString& command, const QString& text);

// Prints a command's help with the exit codes.
void printCommandHelp(QTextStream& out, const QCommandLineParser& parser, const QString& command);
// Parses a command's arguments: the exit code when the command ends there (a usage error, or its
// help printed), else nothing.
std::optional<int> parseCommandLine(QCommandLineParser& parser, const QStringList& arguments,
                                    const CommonOptions& common, const QString& command, QTextStream& out,
                                    QTextStream& err);

// The agent a command talks to, with the viewer's name and its known-agents file.
struct Target {
    AgentAddress address;
    QString name;
    QString knownAgents;
};

// HOST[:PORT], or an agent's advertised instance name, from the one positional argument, and the
// common options.
std::optional<Target> parseTarget(const QCommandLineParser& parser, const CommonOptions& common,
                                  const ViewerPlatform& platform, QString* error);
// The same for a command whose HOST[:PORT] is not its only positional argument.
std::optional<Target> parseTarget(const QString& hostAndPort, const QCommandLineParser& parser,
                                  const CommonOptions& common, const ViewerPlatform& platform,
                                  QString* error);

// The account a command signs in with. The password never comes from the command line.
struct Credentials {
    QString user;
    QString password;
};

struct SignInOptions {
    QCommandLineOption user{{QStringLiteral("u"), QStringLiteral("user")},
                            QStringLiteral("The user name of the account the agent runs as."),
                            QStringLiteral("USER")};
    QCommandLineOption passwordStdin{
        QStringLiteral("password-stdin"),
        QStringLiteral("Read the password from the first line of standard input.")};
};

// The user name from -u and the password from a no-echo prompt or standard input; none (with the
// exit code in `exitCode`) when either is missing.
std::optional<Credentials> readCredentials(const QCommandLineParser& parser, const SignInOptions& options,
                                           const Target& target, const QString& command, QTextStream& err,
                                           int* exitCode);

// Once the agent has answered the handshake, signs in; `onSignedIn` runs when the agent accepts.
// A refusal is printed and ends the session with exitSignInRefused.
void signInWhenReady(ViewerSession& session, Credentials credentials, std::function<void()> onSignedIn,
                     QTextStream& err);

// The address of the agent advertised on the local network under `instanceName`, if it is found
// within `timeout`.
std::optional<AgentAddress> findAdvertisedAgent(const ViewerPlatform& platform, const QString& instanceName,
                                                std::chrono::milliseconds timeout, QString* error);

// Runs the event loop until the session ends; Ctrl-C and SIGTERM end it politely.
int runSession(ViewerSession& session, const ViewerPlatform& platform);

// The commands. Each takes the arguments with the command word removed.
int connectCommand(const QStringList& arguments, QTextStream& out, QTextStream& err,
                   const ViewerPlatform& platform);
int statsCommand(const QStringList& arguments, QTextStream& out, QTextStream& err,
                 const ViewerPlatform& platform);
int clipCommand(const QStringList& arguments, QTextStream& out, QTextStream& err,
                const ViewerPlatform& platform);
int sendCommand(const QStringList& arguments, QTextStream& out, QTextStream& err,
                const ViewerPlatform& platform);
int watchCommand(const QStringList& arguments, QTextStream& out, QTextStream& err,
                 const ViewerPlatform& platform);
int viewCommand(const QStringList& arguments, QTextStream& out, QTextStream& err,
                const ViewerPlatform& platform);
int screenshotCommand(const QStringList& arguments, QTextStream& out, QTextStream& err,
                      const ViewerPlatform& platform);

// Signs in and prints statistics records: the first one only, or (`live`) each as it arrives.
int statisticsSession(const QStringList& arguments, QTextStream& out, QTextStream& err,
                      const ViewerPlatform& platform, const QString& command, bool live);
int discoverCommand(const QStringList& arguments, QTextStream& out, QTextStream& err,
                    const ViewerPlatform& platform);

} // namespace tellwyn
