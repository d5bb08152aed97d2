// tellwyn stats: sign in and print the first statistics record.

#include "viewer_command.h"

#include "hlvp.h"
#include "message_text.h"
#include "password_prompt.h"

using namespace Qt::StringLiterals;

namespace tellwyn {

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
        printCommandHelp(out, parser, u"stats"_s);
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

} // namespace tellwyn
