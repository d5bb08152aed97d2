#include "viewer_command.h"

#include "hlvp.h"
#include "known_agents.h"
#include "message_text.h"
#include "password_prompt.h"
#include "system_identity.h"

#include <QCoreApplication>

using namespace Qt::StringLiterals;

namespace tellwyn {

const QString exitCodesText =
    u"Exit codes:\n"
    u"  0  success, or the session ended normally\n"
    u"  1  a local problem (a file could not be read or written)\n"
    u"  2  wrong usage\n"
    u"  3  the agent could not be reached, or the connection was lost\n"
    u"  4  the agent's identity differs from the one pinned in the known-agents file\n"
    u"  5  the agent refused a message, or sent something unreadable\n"
    u"  6  sign-in refused\n"_s;

int usageError(QTextStream& err, const QString& command, const QString& text) {
    err << u"tellwyn: "_s << text << u"\nTry 'tellwyn "_s << command << u" --help'."_s << Qt::endl;
    return exitUsage;
}

void printCommandHelp(QTextStream& out, const QCommandLineParser& parser, const QString& command) {
    out << parser.helpText().replace(u"tellwyn [options]"_s, u"tellwyn %1 [options]"_s.arg(command)) << u'\n'
        << exitCodesText;
}

std::optional<int> parseCommandLine(QCommandLineParser& parser, const QStringList& arguments,
                                    const CommonOptions& common, const QString& command, QTextStream& out,
                                    QTextStream& err) {
    if (!parser.parse(arguments)) {
        return usageError(err, command, parser.errorText());
    }
    if (parser.isSet(common.help)) {
        printCommandHelp(out, parser, command);
        return exitOk;
    }
    return std::nullopt;
}

int runSession(ViewerSession& session, const ViewerPlatform& platform) {
    const auto termination = platform.watchTermination(&session, [&session] { session.finish(exitOk); });
    QObject::connect(&session, &ViewerSession::finished, QCoreApplication::instance(),
                     [](int code) { QCoreApplication::exit(code); });
    session.start();
    return QCoreApplication::exec();
}

std::optional<Target> parseTarget(const QCommandLineParser& parser, const CommonOptions& common,
                                  const ViewerPlatform& platform, QString* error) {
    if (parser.positionalArguments().size() != 1) {
        *error = u"give exactly one HOST[:PORT]"_s;
        return std::nullopt;
    }
    return parseTarget(parser.positionalArguments().constFirst(), parser, common, platform, error);
}

std::optional<Target> parseTarget(const QString& hostAndPort, const QCommandLineParser& parser,
                                  const CommonOptions& common, const ViewerPlatform& platform,
                                  QString* error) {
    // Advertised names ("TellwynAgent - Office") are not host names; look them up on the network.
    const auto address = hostAndPort.contains(u' ')
                             ? findAdvertisedAgent(platform, hostAndPort, std::chrono::seconds(5), error)
                             : parseAgentAddress(hostAndPort, HLVP::defaultPort, error);
    if (!address) {
        return std::nullopt;
    }
    return Target{
        *address,
        parser.isSet(common.name) ? parser.value(common.name)
                                  : platform.identity.localizedComputerName().value_or(u"tellwyn"_s),
        parser.isSet(common.knownAgents) ? parser.value(common.knownAgents) : KnownAgents::defaultPath()};
}

std::optional<Credentials> readCredentials(const QCommandLineParser& parser, const SignInOptions& options,
                                           const Target& target, const QString& command, QTextStream& err,
                                           int* exitCode) {
    if (!parser.isSet(options.user) || parser.value(options.user).isEmpty()) {
        *exitCode = usageError(err, command, u"give the account's user name with -u USER"_s);
        return std::nullopt;
    }
    const QString user = parser.value(options.user);
    std::optional<QString> password =
        parser.isSet(options.passwordStdin)
            ? readPasswordLine()
            : promptForPassword(u"Password for %1 on %2: "_s.arg(user, target.address.display()));
    if (!password) {
        err << (parser.isSet(options.passwordStdin)
                    ? u"tellwyn: no password on standard input"_s
                    : u"tellwyn: no terminal to ask for the password; use --password-stdin"_s)
            << Qt::endl;
        *exitCode = exitFailure;
        return std::nullopt;
    }
    return Credentials{user, *password};
}

void signInWhenReady(ViewerSession& session, Credentials credentials, std::function<void()> onSignedIn,
                     QTextStream& err) {
    auto pending = std::make_shared<Credentials>(std::move(credentials));
    QObject::connect(
        &session, &ViewerSession::ready, &session, [&session, pending](const HandshakeResponseMessage&) {
            AuthenticationMessage signIn;
            signIn.method = HLVP::AuthenticationMethod::password;
            signIn.credentials = {{u"username"_s, pending->user}, {u"password"_s, pending->password}};
            session.send(signIn);
            pending->password.fill(u'\0');
            pending->password.clear();
        });
    QObject::connect(&session, &ViewerSession::messageReceived, &session,
                     [&session, &err, onSignedIn = std::move(onSignedIn)](const HLVPMessage& message) {
                         const auto* response = std::get_if<AuthenticationResponseMessage>(&message);
                         if (response == nullptr) {
                             return;
                         }
                         if (response->success) {
                             onSignedIn();
                             return;
                         }
                         err << u"tellwyn: sign-in refused: %1"_s.arg(
                                    agentText(response->errorMessage.value_or(u"(no reason given)"_s)))
                             << Qt::endl;
                         session.finish(exitSignInRefused);
                     });
}

} // namespace tellwyn
