// tellwyn connect: hand-shake, keep alive, print what the agent sends.

#include "hlvp.h"
#include "message_text.h"
#include "viewer_command.h"

#include <QTimer>

using namespace Qt::StringLiterals;

namespace tellwyn {

int connectCommand(const QStringList& arguments, QTextStream& out, QTextStream& err,
                   const ViewerPlatform& platform) {
    QCommandLineParser parser;
    parser.setApplicationDescription(
        u"Connects to the agent at HOST (port %1 unless given), hand-shakes, keeps the connection alive with "
        u"heartbeats and prints every message the agent sends. Ctrl-C says goodbye and ends."_s.arg(
            HLVP::defaultPort));
    CommonOptions common;
    const QCommandLineOption heartbeat(
        u"heartbeat-interval"_s,
        u"Send a heartbeat every SECONDS (default 20; the agent drops a viewer "
        u"silent for a minute)."_s,
        u"SECONDS"_s, u"20"_s);
    parser.addOptions({common.help, common.name, common.knownAgents, heartbeat});
    parser.addPositionalArgument(u"HOST[:PORT]"_s, u"Where the agent listens."_s);
    if (const std::optional<int> finished =
            parseCommandLine(parser, arguments, common, u"connect"_s, out, err)) {
        return *finished;
    }
    QString error;
    const auto target = parseTarget(parser, common, platform, &error);
    if (!target) {
        return usageError(err, u"connect"_s, error);
    }
    bool ok = false;
    const double interval = parser.value(heartbeat).toDouble(&ok);
    if (!ok || interval < 0.1 || interval > 3600) {
        return usageError(err, u"connect"_s,
                          u"invalid heartbeat interval '%1'"_s.arg(parser.value(heartbeat)));
    }
    ViewerSession session(target->address, target->name, target->knownAgents, out, err);
    QTimer heartbeats;
    heartbeats.setInterval(std::chrono::milliseconds(qint64(interval * 1000.0)));
    QObject::connect(&heartbeats, &QTimer::timeout, &session,
                     [&session] { session.send(HeartbeatMessage{std::nullopt}); });
    QObject::connect(&session, &ViewerSession::ready, &session,
                     [&](const HandshakeResponseMessage& response) {
                         out << u"Connected to %1 at %2 (protocol version %3, agent version %4)."_s
                                    .arg(agentText(response.agentName), target->address.display())
                                    .arg(response.protocolVersion)
                                    .arg(agentText(response.agentVersion))
                             << Qt::endl;
                         heartbeats.start();
                     });
    QObject::connect(&session, &ViewerSession::messageReceived, &session,
                     [&](const HLVPMessage& message) { out << messageSummary(message) << Qt::endl; });
    return runSession(session, platform);
}

} // namespace tellwyn
