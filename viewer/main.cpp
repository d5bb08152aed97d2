// tellwyn: the command-line viewer of TellwynAgent.

#include "agent_address.h"
#include "hlvp.h"
#include "known_agents.h"
#include "linux_system_identity.h"
#include "message_text.h"
#include "password_prompt.h"
#include "unix_signal_watcher.h"
#include "viewer_session.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QTextStream>
#include <QTimer>

#include <cstdio>

using namespace Qt::StringLiterals;

namespace tellwyn {
namespace {

const QString exitCodesText = u"Exit codes:\n"
                              u"  0  success, or the session ended normally\n"
                              u"  1  a local problem (a file could not be read or written)\n"
                              u"  2  wrong usage\n"
                              u"  3  the agent could not be reached, or the connection was lost\n"
                              u"  4  the agent's identity differs from the one pinned in the known-agents file\n"
                              u"  5  the agent refused a message, or sent something unreadable\n"
                              u"  6  sign-in refused\n"_s;

const QString mainHelp = u"Usage: tellwyn COMMAND [OPTIONS] ...\n"
                         u"The command-line viewer of TellwynAgent.\n\n"
                         u"Commands:\n"
                         u"  connect HOST[:PORT]   connect, keep the connection alive and print what the agent sends\n\n"
                         u"Run 'tellwyn COMMAND --help' for the options of a command.\n"
                         u"Agents are pinned on first contact in ~/.config/tellwyn/known_agents.\n\n"_s +
                         exitCodesText;

struct CommonOptions {
    QCommandLineOption help{{u"h"_s, u"help"_s}, u"Show this help and exit."_s};
    QCommandLineOption name{u"name"_s, u"The name this viewer gives the agent (default: this computer's name)."_s,
                            u"NAME"_s};
    QCommandLineOption knownAgents{u"known-agents"_s,
                                   u"Pin agents in FILE instead of ~/.config/tellwyn/known_agents."_s, u"FILE"_s};
};

int usageError(QTextStream& err, const QString& command, const QString& text) {
    err << u"tellwyn: "_s << text << u"\nTry 'tellwyn "_s << command << u" --help'."_s << Qt::endl;
    return exitUsage;
}

// Runs the event loop until the session ends; Ctrl-C and SIGTERM end it politely.
int runSession(ViewerSession& session) {
    UnixSignalWatcher signalWatcher;
    QObject::connect(&signalWatcher, &UnixSignalWatcher::terminationRequested, &session,
                     [&session](int) { session.finish(exitOk); });
    QObject::connect(&session, &ViewerSession::finished, QCoreApplication::instance(),
                     [](int code) { QCoreApplication::exit(code); });
    session.start();
    return QCoreApplication::exec();
}

// Parses HOST[:PORT], the name and the known-agents file shared by every command that connects.
struct Target {
    AgentAddress address;
    QString name;
    QString knownAgents;
};

std::optional<Target> parseTarget(const QCommandLineParser& parser, const CommonOptions& common, QString* error) {
    if (parser.positionalArguments().size() != 1) {
        *error = u"give exactly one HOST[:PORT]"_s;
        return std::nullopt;
    }
    const auto address = parseAgentAddress(parser.positionalArguments().constFirst(), HLVP::defaultPort, error);
    if (!address) {
        return std::nullopt;
    }
    return Target{*address,
                  parser.isSet(common.name) ? parser.value(common.name)
                                            : LinuxSystemIdentity().localizedComputerName().value_or(u"tellwyn"_s),
                  parser.isSet(common.knownAgents) ? parser.value(common.knownAgents) : KnownAgents::defaultPath()};
}

int connectCommand(const QStringList& arguments, QTextStream& out, QTextStream& err) {
    QCommandLineParser parser;
    parser.setApplicationDescription(
        u"Connects to the agent at HOST (port %1 unless given), hand-shakes, keeps the connection alive with "
        u"heartbeats and prints every message the agent sends. Ctrl-C says goodbye and ends."_s.arg(
            HLVP::defaultPort));
    CommonOptions common;
    const QCommandLineOption heartbeat(u"heartbeat-interval"_s,
                                       u"Send a heartbeat every SECONDS (default 20; the agent drops a viewer "
                                       u"silent for a minute)."_s,
                                       u"SECONDS"_s, u"20"_s);
    parser.addOptions({common.help, common.name, common.knownAgents, heartbeat});
    parser.addPositionalArgument(u"HOST[:PORT]"_s, u"Where the agent listens."_s);
    if (!parser.parse(arguments)) {
        return usageError(err, u"connect"_s, parser.errorText());
    }
    if (parser.isSet(common.help)) {
        out << parser.helpText().replace(u"tellwyn [options]"_s, u"tellwyn connect [options]"_s) << u'\n'
            << exitCodesText;
        return exitOk;
    }
    QString error;
    const auto target = parseTarget(parser, common, &error);
    if (!target) {
        return usageError(err, u"connect"_s, error);
    }
    bool ok = false;
    const double interval = parser.value(heartbeat).toDouble(&ok);
    if (!ok || interval < 0.1 || interval > 3600) {
        return usageError(err, u"connect"_s, u"invalid heartbeat interval '%1'"_s.arg(parser.value(heartbeat)));
    }
    ViewerSession session(target->address, target->name, target->knownAgents, out, err);
    QTimer heartbeats;
    heartbeats.setInterval(std::chrono::milliseconds(qint64(interval * 1000.0)));
    QObject::connect(&heartbeats, &QTimer::timeout, &session,
                     [&session] { session.send(HeartbeatMessage{std::nullopt}); });
    QObject::connect(&session, &ViewerSession::ready, &session,
                     [&](const HandshakeResponseMessage& response) {
                         out << u"Connected to %1 at %2 (protocol version %3, agent version %4)."_s.arg(
                                    response.agentName, target->address.display())
                                    .arg(response.protocolVersion)
                                    .arg(response.agentVersion)
                             << Qt::endl;
                         heartbeats.start();
                     });
    QObject::connect(&session, &ViewerSession::messageReceived, &session,
                     [&](const HLVPMessage& message) { out << messageSummary(message) << Qt::endl; });
    return runSession(session);
}


int statsCommand(const QStringList& arguments, QTextStream& out, QTextStream& err) {
    QCommandLineParser parser;
    parser.setApplicationDescription(
        u"Signs in to the agent at HOST with the user name and password of the account the agent runs as, "
        u"prints the first statistics record and leaves. The password is asked for without echo, or read "
        u"from standard input with --password-stdin; it is never taken from the command line."_s);
    CommonOptions common;
    const QCommandLineOption user({u"u"_s, u"user"_s}, u"The account's user name."_s, u"USER"_s);
    const QCommandLineOption passwordStdin(u"password-stdin"_s,
                                           u"Read the password from the first line of standard input."_s);
    parser.addOptions({common.help, common.name, common.knownAgents, user, passwordStdin});
    parser.addPositionalArgument(u"HOST[:PORT]"_s, u"Where the agent listens."_s);
    if (!parser.parse(arguments)) {
        return usageError(err, u"stats"_s, parser.errorText());
    }
    if (parser.isSet(common.help)) {
        out << parser.helpText().replace(u"tellwyn [options]"_s, u"tellwyn stats [options]"_s) << u'\n'
            << exitCodesText;
        return exitOk;
    }
    QString error;
    const auto target = parseTarget(parser, common, &error);
    if (!target) {
        return usageError(err, u"stats"_s, error);
    }
    if (!parser.isSet(user) || parser.value(user).isEmpty()) {
        return usageError(err, u"stats"_s, u"give the account's user name with -u USER"_s);
    }
    const QString userName = parser.value(user);
    std::optional<QString> password =
        parser.isSet(passwordStdin)
            ? readPasswordLine()
            : promptForPassword(u"Password for %1 on %2: "_s.arg(userName, target->address.display()));
    if (!password) {
        err << (parser.isSet(passwordStdin) ? u"tellwyn: no password on standard input"_s
                                            : u"tellwyn: no terminal to ask for the password; use --password-stdin"_s)
            << Qt::endl;
        return exitFailure;
    }

    ViewerSession session(target->address, target->name, target->knownAgents, out, err);
    bool signedIn = false;
    QObject::connect(&session, &ViewerSession::ready, &session, [&](const HandshakeResponseMessage&) {
        AuthenticationMessage signIn;
        signIn.method = HLVP::AuthenticationMethod::password;
        signIn.credentials = {{u"username"_s, userName}, {u"password"_s, *password}};
        session.send(signIn);
        password->fill(u'\0');
        password.reset();
    });
    QObject::connect(&session, &ViewerSession::messageReceived, &session, [&](const HLVPMessage& message) {
        if (const auto* response = std::get_if<AuthenticationResponseMessage>(&message)) {
            if (response->success) {
                signedIn = true;
            } else {
                err << u"tellwyn: sign-in refused: %1"_s.arg(response->errorMessage.value_or(u"(no reason given)"_s))
                    << Qt::endl;
                session.finish(exitSignInRefused);
            }
        } else if (const auto* stats = std::get_if<SystemStatsMessage>(&message); stats && signedIn) {
            out << statisticsText(*stats) << Qt::endl;
            session.finish(exitOk);
        } else if (const auto* refusal = std::get_if<ErrorMessage>(&message)) {
            err << u"tellwyn: the agent refused a message: %1: %2"_s.arg(refusal->code, refusal->message)
                << Qt::endl;
            session.finish(exitProtocolError);
        }
    });
    return runSession(session);
}

} // namespace
} // namespace tellwyn

int main(int argc, char* argv[]) {
    using namespace tellwyn;
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(u"tellwyn"_s);
    QCoreApplication::setApplicationVersion(QLatin1String(TELLWYN_VERSION));
    QTextStream out(stdout);
    QTextStream err(stderr);

    QStringList arguments = QCoreApplication::arguments();
    const QString command = arguments.value(1);
    if (command.isEmpty() || command == u"-h"_s || command == u"--help"_s || command == u"help"_s) {
        (command.isEmpty() ? err : out) << mainHelp;
        return command.isEmpty() ? exitUsage : exitOk;
    }
    if (command == u"--version"_s || command == u"-v"_s) {
        out << u"tellwyn %1\n"_s.arg(QLatin1String(TELLWYN_VERSION));
        return exitOk;
    }
    arguments.removeAt(1);
    if (command == u"connect"_s) {
        return connectCommand(arguments, out, err);
    }
    if (command == u"stats"_s) {
        return statsCommand(arguments, out, err);
    }
    err << u"tellwyn: unknown command '%1'\nTry 'tellwyn --help'."_s.arg(command) << Qt::endl;
    return exitUsage;
}
