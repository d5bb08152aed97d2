// tellwyn: the command-line viewer of TellwynAgent.

#include "viewer_command.h"

// The viewer's own composition: the Linux implementations its commands use.
#include "linux/avahi_service_browser.h"
#include "linux/linux_system_identity.h"
#include "linux/unix_signal_watcher.h"

#include <QCoreApplication>
#include <QTextStream>
#include <functional>
#include <malloc.h>

using namespace Qt::StringLiterals;

namespace tellwyn {
namespace {

using Command = std::function<int(const QStringList&, QTextStream&, QTextStream&, const ViewerPlatform&)>;

// Every command, with the line that introduces it in `tellwyn --help`.
struct CommandEntry {
    QString name;
    QString summary;
    Command run;
};

const QList<CommandEntry>& commands() {
    static const QList<CommandEntry> list{
        {u"connect"_s,
         u"connect HOST[:PORT]   connect, keep the connection alive and print what the agent sends"_s,
         connectCommand},
        {u"stats"_s,
         u"stats HOST[:PORT] -u USER\n                        sign in and print the agent's first statistics record"_s,
         statsCommand},
        {u"watch"_s,
         u"watch HOST[:PORT] -u USER\n                        sign in and show the statistics live as they arrive"_s,
         watchCommand},
        {u"clip"_s,
         u"clip get|put|watch HOST[:PORT] -u USER [TEXT]\n                        read, set or follow the agent's clipboard"_s,
         clipCommand},
        {u"send"_s,
         u"send HOST[:PORT] -u USER FILE...\n                        upload files into the agent's Downloads/Tellwyn folder"_s,
         sendCommand},
        {u"view"_s,
         u"view HOST[:PORT] -u USER\n                        show the agent's screen live in a window"_s,
         viewCommand},
        {u"screenshot"_s,
         u"screenshot HOST[:PORT] -u USER -o FILE.png\n                        write one lossless picture of the agent's screen"_s,
         screenshotCommand},
        {u"discover"_s, u"discover [--watch]     list the agents advertised on the local network"_s,
         discoverCommand},
    };
    return list;
}

QString mainHelp() {
    QString text =
        u"Usage: tellwyn COMMAND [OPTIONS] ...\nThe command-line viewer of TellwynAgent.\n\nCommands:\n"_s;
    for (const CommandEntry& command : commands()) {
        text += u"  "_s + command.summary + u'\n';
    }
    return text +
           u"\nRun 'tellwyn COMMAND --help' for the options of a command.\n"
           u"Agents are pinned on first contact in ~/.config/tellwyn/known_agents.\n\n"_s +
           exitCodesText;
}

} // namespace
} // namespace tellwyn

int main(int argc, char* argv[]) {
    using namespace tellwyn;
    // Uploads pass through in pieces of a few hundred KiB: keep such blocks in the heap instead of
    // mapping, zeroing and unmapping fresh pages for every piece.
    mallopt(M_MMAP_THRESHOLD, 4 * 1024 * 1024);
    mallopt(M_TRIM_THRESHOLD, 32 * 1024 * 1024);
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(u"tellwyn"_s);
    QCoreApplication::setApplicationVersion(QLatin1String(TELLWYN_VERSION));
    QTextStream out(stdout);
    QTextStream err(stderr);

    QStringList arguments = QCoreApplication::arguments();
    const QString command = arguments.value(1);
    if (command.isEmpty() || command == u"-h"_s || command == u"--help"_s || command == u"help"_s) {
        (command.isEmpty() ? err : out) << mainHelp();
        return command.isEmpty() ? exitUsage : exitOk;
    }
    if (command == u"--version"_s || command == u"-v"_s) {
        out << u"tellwyn %1\n"_s.arg(QLatin1String(TELLWYN_VERSION));
        return exitOk;
    }
    arguments.removeAt(1);
    LinuxSystemIdentity identity;
    const ViewerPlatform platform{
        identity, [] { return std::make_unique<AvahiServiceBrowserBackend>(); },
        [](QObject* context, std::function<void()> handler) -> std::unique_ptr<QObject> {
            auto watcher = std::make_unique<UnixSignalWatcher>();
            QObject::connect(watcher.get(), &UnixSignalWatcher::terminationRequested, context,
                             [handler = std::move(handler)](int) { handler(); });
            return watcher;
        }};
    for (const CommandEntry& entry : commands()) {
        if (entry.name == command) {
            return entry.run(arguments, out, err, platform);
        }
    }
    err << u"tellwyn: unknown command '%1'\nTry 'tellwyn --help'."_s.arg(command) << Qt::endl;
    return exitUsage;
}
