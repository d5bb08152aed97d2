// tellwyn clip get|put|watch: read, set and follow the agent's clipboard.

#include "hlvp.h"
#include "message_text.h"
#include "viewer_command.h"

#include <QTimer>
#include <cstdio>

using namespace Qt::StringLiterals;

namespace tellwyn {

namespace {

constexpr auto keepAliveInterval = std::chrono::seconds(20);

QString readAllOfStandardInput() {
    QByteArray bytes;
    char buffer[65536];
    for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, stdin)) > 0;) {
        bytes.append(buffer, qsizetype(n));
    }
    return QString::fromUtf8(bytes);
}

} // namespace

int clipCommand(const QStringList& arguments, QTextStream& out, QTextStream& err,
                const ViewerPlatform& platform) {
    QCommandLineParser parser;
    parser.setApplicationDescription(u"get: print the agent's clipboard text. put: set it to TEXT, or to "
                                     u"standard input without TEXT (after "
                                     u"the password line with --password-stdin). watch: print each text the "
                                     u"agent's clipboard takes, until "
                                     u"Ctrl-C. Signs in first, as 'tellwyn stats' does."_s);
    CommonOptions common;
    SignInOptions signIn;
    parser.addOptions({common.help, common.name, common.knownAgents, signIn.user, signIn.passwordStdin});
    parser.addPositionalArgument(u"get|put|watch"_s, u"What to do."_s);
    parser.addPositionalArgument(u"HOST[:PORT]"_s, u"Where the agent listens."_s);
    parser.addPositionalArgument(u"TEXT"_s, u"With put: the text."_s, u"[TEXT]"_s);
    if (const std::optional<int> finished =
            parseCommandLine(parser, arguments, common, u"clip"_s, out, err)) {
        return *finished;
    }
    QStringList positional = parser.positionalArguments();
    const QString action = positional.value(0);
    if (action != u"get"_s && action != u"put"_s && action != u"watch"_s) {
        return usageError(err, u"clip"_s, u"say get, put or watch"_s);
    }
    const bool sizeFits =
        action == u"put"_s ? positional.size() == 2 || positional.size() == 3 : positional.size() == 2;
    if (!sizeFits) {
        return usageError(err, u"clip"_s,
                          u"give HOST[:PORT]"_s +
                              (action == u"put"_s ? u" and, if you like, TEXT"_s : QString()));
    }
    QString error;
    const auto target = parseTarget(positional.at(1), parser, common, platform, &error);
    if (!target) {
        return usageError(err, u"clip"_s, error);
    }
    int exitCode = exitOk;
    auto credentials = readCredentials(parser, signIn, *target, u"clip"_s, err, &exitCode);
    if (!credentials) {
        return exitCode;
    }
    const QString text = action == u"put"_s
                             ? (positional.size() == 3 ? positional.at(2) : readAllOfStandardInput())
                             : QString();

    ViewerSession session(target->address, target->name, target->knownAgents, out, err);
    QTimer keepAlive;
    keepAlive.setInterval(keepAliveInterval);
    QObject::connect(&keepAlive, &QTimer::timeout, &session,
                     [&session] { session.send(HeartbeatMessage{}); });
    constexpr quint32 putConfirmation = 1;
    signInWhenReady(
        session, std::move(*credentials),
        [&] {
            if (action == u"get"_s) {
                session.send(ClipboardRequestMessage{});
            } else if (action == u"put"_s) {
                // The agent answers in order: a refusal of the text would come before this reply.
                session.send(ClipboardMessage{text, std::nullopt});
                session.send(HeartbeatMessage{putConfirmation});
            } else {
                keepAlive.start();
            }
        },
        err);
    QObject::connect(&session, &ViewerSession::messageReceived, &session, [&](const HLVPMessage& message) {
        if (const auto* refusal = std::get_if<ErrorMessage>(&message)) {
            err << u"tellwyn: the agent refused: %1"_s.arg(agentText(refusal->message)) << Qt::endl;
            session.finish(exitProtocolError);
        } else if (const auto* clipboard = std::get_if<ClipboardMessage>(&message)) {
            if (action == u"get"_s) {
                out << clipboard->text << Qt::flush;
                session.finish(exitOk);
            } else if (action == u"watch"_s) {
                out << clipboard->text << u'\n' << Qt::flush;
            }
        } else if (const auto* answer = std::get_if<HeartbeatResponseMessage>(&message);
                   answer && action == u"put"_s && answer->sequenceNumber == putConfirmation) {
            session.finish(exitOk);
        }
    });
    return runSession(session, platform);
}

} // namespace tellwyn
