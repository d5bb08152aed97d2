// tellwyn stats: sign in and print the first statistics record. The signing-in and printing
// are shared with tellwyn watch, which keeps printing records as they arrive.

#include "hlvp.h"
#include "message_text.h"
#include "password_prompt.h"
#include "viewer_command.h"

#include <QTimer>
#include <cstdio>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace tellwyn {

namespace {
// Sign-in and statistics start at once; a viewer that stays must show the agent it is alive.
constexpr std::chrono::seconds heartbeatInterval{20};
} // namespace

int statisticsSession(const QStringList& arguments, QTextStream& out, QTextStream& err,
                      const ViewerPlatform& platform, const QString& command, bool live) {
    QCommandLineParser parser;
    parser.setApplicationDescription(
        (live ? u"Signs in to the agent at HOST with the user name and password of the account the agent "
                u"runs as "
                u"and shows each statistics record as it arrives (about every 10 s), redrawing the screen on "
                u"a "
                u"terminal, until interrupted. "_s
              : u"Signs in to the agent at HOST with the user name and password of the account the agent "
                u"runs as, "
                u"prints the first statistics record and leaves. "_s) +
        u"The password is asked for without echo, or read "
        u"from standard input with --password-stdin; it is never taken from the command line."_s);
    CommonOptions common;
    const QCommandLineOption json(u"json"_s, live ? u"Print each record as one line of JSON."_s
                                                  : u"Print the record as JSON, as it came over the wire."_s);
    const QCommandLineOption user({u"u"_s, u"user"_s}, u"The account's user name."_s, u"USER"_s);
    const QCommandLineOption passwordStdin(u"password-stdin"_s,
                                           u"Read the password from the first line of standard input."_s);
    parser.addOptions({common.help, common.name, common.knownAgents, user, passwordStdin, json});
    parser.addPositionalArgument(u"HOST[:PORT]"_s, u"Where the agent listens."_s);
    if (const std::optional<int> finished = parseCommandLine(parser, arguments, common, command, out, err)) {
        return *finished;
    }
    QString error;
    const auto target = parseTarget(parser, common, platform, &error);
    if (!target) {
        return usageError(err, command, error);
    }
    if (!parser.isSet(user) || parser.value(user).isEmpty()) {
        return usageError(err, command, u"give the account's user name with -u USER"_s);
    }
    const QString userName = parser.value(user);
    std::optional<QString> password =
        parser.isSet(passwordStdin)
            ? readPasswordLine()
            : promptForPassword(u"Password for %1 on %2: "_s.arg(userName, target->address.display()));
    if (!password) {
        err << (parser.isSet(passwordStdin)
                    ? u"tellwyn: no password on standard input"_s
                    : u"tellwyn: no terminal to ask for the password; use --password-stdin"_s)
            << Qt::endl;
        return exitFailure;
    }

    ViewerSession session(target->address, target->name, target->knownAgents, out, err);
    QTimer heartbeats;
    heartbeats.setInterval(heartbeatInterval);
    QObject::connect(&heartbeats, &QTimer::timeout, &session,
                     [&session] { session.send(HeartbeatMessage{std::nullopt}); });
    const bool asJson = parser.isSet(json);
    const bool redraw = live && !asJson && ::isatty(STDOUT_FILENO) == 1;
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
                if (live) {
                    heartbeats.start();
                }
            } else {
                err << u"tellwyn: sign-in refused: %1"_s.arg(
                           agentText(response->errorMessage.value_or(u"(no reason given)"_s)))
                    << Qt::endl;
                session.finish(exitSignInRefused);
            }
        } else if (const auto* stats = std::get_if<SystemStatsMessage>(&message); stats && signedIn) {
            if (redraw) {
                out << "\x1b[H\x1b[2J"; // home and clear
            }
            if (asJson) {
                out << QString::fromUtf8(statisticsJson(*stats)) << Qt::endl;
            } else {
                out << statisticsText(*stats) << Qt::endl;
                if (live) {
                    out << u"\nUpdated %1. Ctrl-C ends."_s.arg(QTime::currentTime().toString(u"HH:mm:ss"_s))
                        << (redraw ? u""_s : u"\n"_s) << Qt::endl;
                }
            }
            if (!live) {
                session.finish(exitOk);
            }
        } else if (const auto* refusal = std::get_if<ErrorMessage>(&message)) {
            err << u"tellwyn: the agent refused a message: %1: %2"_s.arg(agentText(refusal->code),
                                                                         agentText(refusal->message))
                << Qt::endl;
            session.finish(exitProtocolError);
        }
    });
    return runSession(session, platform);
}

int statsCommand(const QStringList& arguments, QTextStream& out, QTextStream& err,
                 const ViewerPlatform& platform) {
    return statisticsSession(arguments, out, err, platform, u"stats"_s, false);
}

} // namespace tellwyn
