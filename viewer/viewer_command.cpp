#include "viewer_command.h"

#include "hlvp.h"
#include "known_agents.h"
#include "linux_system_identity.h"
#include "unix_signal_watcher.h"

#include <QCoreApplication>

using namespace Qt::StringLiterals;

namespace tellwyn {

const QString exitCodesText = u"Exit codes:\n"
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

int runSession(ViewerSession& session) {
    UnixSignalWatcher signalWatcher;
    QObject::connect(&signalWatcher, &UnixSignalWatcher::terminationRequested, &session,
                     [&session](int) { session.finish(exitOk); });
    QObject::connect(&session, &ViewerSession::finished, QCoreApplication::instance(),
                     [](int code) { QCoreApplication::exit(code); });
    session.start();
    return QCoreApplication::exec();
}

std::optional<Target> parseTarget(const QCommandLineParser& parser, const CommonOptions& common, QString* error) {
    if (parser.positionalArguments().size() != 1) {
        *error = u"give exactly one HOST[:PORT]"_s;
        return std::nullopt;
    }
    const QString text = parser.positionalArguments().constFirst();
    // Advertised names ("TellwynAgent - Office") are not host names; look them up on the network.
    auto address = text.contains(u' ') ? findAdvertisedAgent(text, std::chrono::seconds(5), error)
                                       : parseAgentAddress(text, HLVP::defaultPort, error);
    if (!address) {
        return std::nullopt;
    }
    return Target{*address,
                  parser.isSet(common.name) ? parser.value(common.name)
                                            : LinuxSystemIdentity().localizedComputerName().value_or(u"tellwyn"_s),
                  parser.isSet(common.knownAgents) ? parser.value(common.knownAgents) : KnownAgents::defaultPath()};
}

} // namespace tellwyn
