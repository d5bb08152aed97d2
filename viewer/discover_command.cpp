// tellwyn discover: list the agents advertised on the local network, and find one by its name.

#include "hlvp.h"
#include "message_text.h"
#include "service_browser_backend.h"
#include "viewer_command.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QTimer>
#include <map>
#include <tuple>

using namespace Qt::StringLiterals;

namespace tellwyn {

namespace {

const auto agentServiceType = QString::fromLatin1(HLVP::serviceType);
const auto agentServiceDomain = u"local"_s;
const auto noResponderText = u"no DNS-SD responder could be reached (is avahi-daemon running?)"_s;

QString hostText(const ResolvedService& service) {
    return service.address.toString();
}

// One line per agent: instance name, host, address, port, then the TXT record; tab-separated.
QString agentLine(const ResolvedService& service) {
    QStringList txt;
    for (auto it = service.txtRecord.cbegin(); it != service.txtRecord.cend(); ++it) {
        txt.append(it.key() + u'=' + QString::fromUtf8(it.value()));
    }
    // Everything but the address came from the network as whoever advertised it chose.
    return QStringList{agentText(service.key.name), agentText(service.hostName), hostText(service),
                       QString::number(service.port), agentText(txt.join(u' '))}
        .join(u'\t');
}

// The same agent is reported once per interface and address family that sees it.
using AgentKey = std::tuple<QString, QString, quint16>;
AgentKey agentKey(const ResolvedService& service) {
    return {service.key.name, hostText(service), service.port};
}

} // namespace

std::optional<AgentAddress> findAdvertisedAgent(const ViewerPlatform& platform, const QString& instanceName,
                                                std::chrono::milliseconds timeout, QString* error) {
    const std::unique_ptr<ServiceBrowserBackend> browserOwner = platform.makeServiceBrowser();
    ServiceBrowserBackend& browser = *browserOwner;
    QEventLoop loop;
    std::optional<AgentAddress> found;
    QObject::connect(&browser, &ServiceBrowserBackend::serviceResolved, &loop,
                     [&](const ResolvedService& service) {
                         if (!found && service.key.name.compare(instanceName, Qt::CaseInsensitive) == 0) {
                             found = AgentAddress{hostText(service), service.port};
                             loop.quit();
                         }
                     });
    QObject::connect(&browser, &ServiceBrowserBackend::failed, &loop, [&](const QString& reason) {
        *error = u"looking for '%1' failed: %2"_s.arg(instanceName, reason);
        loop.quit();
    });
    if (!browser.start(agentServiceType, agentServiceDomain)) {
        *error = noResponderText;
        return std::nullopt;
    }
    QTimer::singleShot(timeout, &loop, &QEventLoop::quit);
    loop.exec();
    if (!found && error->isEmpty()) {
        *error = u"no agent named '%1' was found on the network"_s.arg(instanceName);
    }
    return found;
}

int discoverCommand(const QStringList& arguments, QTextStream& out, QTextStream& err,
                    const ViewerPlatform& platform) {
    QCommandLineParser parser;
    parser.setApplicationDescription(
        u"Lists the agents advertised on the local network by DNS-SD, one per line: instance name, host, "
        u"address, port and TXT record, separated by tabs. The instance name can be given to the other "
        u"commands in place of HOST[:PORT]."_s);
    CommonOptions common;
    const QCommandLineOption seconds({u"t"_s, u"time"_s}, u"Listen for SECONDS before listing (default 3)."_s,
                                     u"SECONDS"_s, u"3"_s);
    const QCommandLineOption watch({u"w"_s, u"watch"_s},
                                   u"Keep listening: print '+' and a line for every agent that appears and "
                                   u"'-' and its line for every agent that goes, until interrupted."_s);
    parser.addOptions({common.help, seconds, watch});
    if (const std::optional<int> finished =
            parseCommandLine(parser, arguments, common, u"discover"_s, out, err)) {
        return *finished;
    }
    bool validTime = false;
    const double listenSeconds = parser.value(seconds).toDouble(&validTime);
    if (!validTime || listenSeconds <= 0 || listenSeconds > 3600) {
        return usageError(err, u"discover"_s,
                          u"give the listening time in seconds, more than 0 and at most 3600"_s);
    }
    if (!parser.positionalArguments().isEmpty()) {
        return usageError(err, u"discover"_s, u"discover takes no arguments"_s);
    }
    const bool watching = parser.isSet(watch);

    const std::unique_ptr<ServiceBrowserBackend> browserOwner = platform.makeServiceBrowser();
    ServiceBrowserBackend& browser = *browserOwner;
    std::map<AgentKey, ResolvedService> agents;
    int exitCode = exitOk;
    QObject::connect(&browser, &ServiceBrowserBackend::serviceResolved, &browser,
                     [&](const ResolvedService& service) {
                         const auto [it, added] = agents.try_emplace(agentKey(service), service);
                         if (added && watching) {
                             out << u"+\t"_s << agentLine(service) << Qt::endl;
                         }
                     });
    QObject::connect(&browser, &ServiceBrowserBackend::serviceRemoved, &browser,
                     [&](const ServiceInstanceKey& key) {
                         for (auto it = agents.begin(); it != agents.end();) {
                             if (it->second.key == key) {
                                 if (watching) {
                                     out << u"-\t"_s << agentLine(it->second) << Qt::endl;
                                 }
                                 it = agents.erase(it);
                             } else {
                                 ++it;
                             }
                         }
                     });
    QObject::connect(&browser, &ServiceBrowserBackend::failed, &browser, [&](const QString& reason) {
        err << u"tellwyn: browsing failed: "_s << reason << Qt::endl;
        exitCode = exitFailure;
        QCoreApplication::exit(exitCode);
    });
    if (!browser.start(agentServiceType, agentServiceDomain)) {
        err << u"tellwyn: "_s << noResponderText << Qt::endl;
        return exitFailure;
    }

    const auto termination = platform.watchTermination(&browser, [] { QCoreApplication::exit(exitOk); });
    if (!watching) {
        QTimer::singleShot(std::chrono::milliseconds(qRound64(listenSeconds * 1000.0)), &browser,
                           [] { QCoreApplication::exit(exitOk); });
    }
    exitCode = QCoreApplication::exec();
    if (!watching && exitCode == exitOk) {
        for (const auto& [key, service] : agents) {
            out << agentLine(service) << Qt::endl;
        }
        if (agents.empty()) {
            err << u"tellwyn: no agents found"_s << Qt::endl;
        }
    }
    return exitCode;
}

} // namespace tellwyn
