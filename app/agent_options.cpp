#include "agent_options.h"

#include "crash_reporter.h"

#include <QCommandLineParser>
#include <cstring>

using namespace Qt::StringLiterals;

namespace tellwyn {

AgentOptionsParse parseAgentOptions(const QStringList& arguments) {
    QCommandLineParser parser;
    parser.setApplicationDescription(
        u"TellwynAgent: lets trusted viewers monitor and control this computer over an encrypted "
        u"HLVP connection, after signing in with this account's user name and password."_s);
    const QCommandLineOption help({u"h"_s, u"help"_s}, u"Show this help and exit."_s);
    const QCommandLineOption version({u"v"_s, u"version"_s}, u"Show the version and exit."_s);
    const QCommandLineOption headless(u"headless"_s, u"Run without any window or tray icon."_s);
    const QCommandLineOption port({u"p"_s, u"port"_s},
                                  u"Listen on PORT (1-65535); stored as the agent's port."_s, u"PORT"_s);
    const QCommandLineOption start(u"start"_s, u"Start the server at once."_s);
    const QCommandLineOption configDirectory(
        u"config-dir"_s, u"Keep the preferences in DIR instead of ~/.config/tellwyn-agent."_s, u"DIR"_s);
    const QCommandLineOption dataDirectory(
        u"data-dir"_s, u"Keep the TLS identity in DIR instead of ~/.local/share/tellwyn-agent."_s, u"DIR"_s);
    const QCommandLineOption listen(
        u"listen"_s, u"Listen on ADDRESS only (default: every address of this machine)."_s, u"ADDRESS"_s);
    const QCommandLineOption checkForUpdates(
        u"check-for-updates"_s,
        u"Ask the update feed whether a newer version exists, print the outcome and exit "
        u"(0 up to date, 1 check failed, 3 update available, 4 installer downloaded, "
        u"5 download failed, 6 download cancelled)."_s);
    const QCommandLineOption downloadUpdate(
        u"download"_s,
        u"With --check-for-updates: download an offered installer into the Downloads folder."_s);
    const QCommandLineOption updateFeed(
        u"update-feed"_s,
        u"Ask the update feed at URL instead of the vendor's (also: environment variable "
        u"TELLWYN_UPDATE_FEED_URL)."_s,
        u"URL"_s);

    const QCommandLineOption noCrashReporter(
        u"no-crash-reporter"_s,
        u"Do not report crashes (also: enableCrashReporter=false in the preferences)."_s);
    parser.addOptions({help, version, headless, port, start, configDirectory, dataDirectory, listen,
                       checkForUpdates, downloadUpdate, updateFeed, noCrashReporter});

    AgentOptionsParse result;
    if (!parser.parse(arguments)) {
        result.output = u"tellwyn-agent: %1\nTry 'tellwyn-agent --help'.\n"_s.arg(parser.errorText());
        result.exitCode = 2;
        return result;
    }
    if (parser.isSet(help)) {
        result.output = parser.helpText();
        return result;
    }
    if (parser.isSet(version)) {
        result.output = u"tellwyn-agent %1 (build %2)\n"_s.arg(QLatin1String(TELLWYN_VERSION),
                                                               QLatin1String(TELLWYN_BUILD_NUMBER));
        return result;
    }
    if (!parser.positionalArguments().isEmpty()) {
        result.output = u"tellwyn-agent: unexpected argument '%1'\nTry 'tellwyn-agent --help'.\n"_s.arg(
            parser.positionalArguments().constFirst());
        result.exitCode = 2;
        return result;
    }

    AgentOptions options;
    options.headless = parser.isSet(headless);
    options.startServer = parser.isSet(start);
    options.configDirectory = parser.value(configDirectory);
    options.dataDirectory = parser.value(dataDirectory);
    options.crashReporter = !parser.isSet(noCrashReporter);
    options.checkForUpdates = parser.isSet(checkForUpdates);
    options.downloadUpdate = parser.isSet(downloadUpdate);
    if (parser.isSet(updateFeed)) {
        options.updateFeedURL = parser.value(updateFeed);
    }
    if (!options.checkForUpdates && (options.downloadUpdate || options.updateFeedURL)) {
        result.output = u"tellwyn-agent: --download and --update-feed go with --check-for-updates.\n"_s;
        result.exitCode = 2;
        return result;
    }
    if (parser.isSet(port)) {
        bool ok = false;
        const uint value = parser.value(port).toUInt(&ok);
        if (!ok || value < 1 || value > 65535) {
            result.output = u"tellwyn-agent: invalid port '%1': give a number from 1 to 65535.\n"_s.arg(
                parser.value(port));
            result.exitCode = 2;
            return result;
        }
        options.port = static_cast<quint16>(value);
    }
    if (parser.isSet(listen)) {
        options.listenAddress = QHostAddress(parser.value(listen));
        if (options.listenAddress.isNull()) {
            result.output = u"tellwyn-agent: invalid listen address '%1'.\n"_s.arg(parser.value(listen));
            result.exitCode = 2;
            return result;
        }
    }
    result.options = options;
    return result;
}

std::optional<int> crashHelperDescriptor(int argc, char** argv) {
    if (argc != 3 || std::strcmp(argv[1], CrashReporter::helperOption) != 0) {
        return std::nullopt;
    }
    bool ok = false;
    const int descriptor = QByteArray(argv[2]).toInt(&ok);
    return ok && descriptor >= 0 ? std::optional<int>(descriptor) : std::nullopt;
}

bool wantsDesktop(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        for (const char* oneOff : {"--headless", "--check-for-updates", "--help", "-h", "--version", "-v"}) {
            if (std::strcmp(argv[i], oneOff) == 0) {
                return false;
            }
        }
    }
    return true;
}

} // namespace tellwyn
