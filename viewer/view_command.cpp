// tellwyn view: the remote screen in a window. The window is a program of its own, tellwyn-view,
// so that `tellwyn` itself never loads Qt Gui: this command reads the options, asks for the
// password on the terminal, and then becomes tellwyn-view, handing the password over through a
// pipe (never the command line or the environment, where other users could read it).

#include "hlvp.h"
#include "viewer_command.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace tellwyn {

namespace {

// Beside `tellwyn` in a build tree, or in the libexec folder of an installed one.
QString windowProgram() {
    const QString folder = QCoreApplication::applicationDirPath();
    for (const QString& candidate :
         {folder + u"/tellwyn-view"_s, folder + u"/../libexec/tellwyn/tellwyn-view"_s}) {
        if (QFileInfo(candidate).isExecutable()) {
            return QFileInfo(candidate).canonicalFilePath();
        }
    }
    return {};
}

} // namespace

int viewCommand(const QStringList& arguments, QTextStream& out, QTextStream& err,
                const ViewerPlatform& platform) {
    QCommandLineParser parser;
    parser.setApplicationDescription(
        u"Signs in to the agent at HOST, as 'tellwyn stats' does, and shows its screen live in a window: "
        u"scaled to fit, or pixel for pixel with scroll bars (View menu). The pointer, the wheel and the "
        u"keyboard work the remote machine while the window has the focus, shortcuts such as Alt+Tab "
        u"included; press Ctrl+Alt+Shift together to give the keyboard back to this desktop, click the "
        u"picture to take it again. Text copied on either side can be pasted on the other while the agent "
        u"shares its clipboard. The password is asked for here on the terminal; started from a desktop "
        u"menu, the window asks for it itself."_s);
    CommonOptions common;
    SignInOptions signIn;
    const QCommandLineOption actualSize(u"actual-size"_s,
                                        u"Start pixel for pixel instead of scaled to fit."_s);
    const QCommandLineOption overlay(u"overlay"_s,
                                     u"Show frames per second, bandwidth and latency over the picture."_s);
    const QCommandLineOption balanced(
        u"balanced"_s, u"Ask for balanced quality (lossy where the picture moves) instead of lossless."_s);
    const QCommandLineOption physicalKeys(
        u"physical-keys"_s,
        u"Type keys by their place on the keyboard (games, shortcuts by position) instead "
        u"of by the symbol they give here."_s);
    parser.addOptions({common.help, common.name, common.knownAgents, signIn.user, signIn.passwordStdin,
                       actualSize, overlay, balanced, physicalKeys});
    parser.addPositionalArgument(u"HOST[:PORT]"_s, u"Where the agent listens."_s);
    if (const std::optional<int> finished =
            parseCommandLine(parser, arguments, common, u"view"_s, out, err)) {
        return *finished;
    }
    QString error;
    const auto target = parseTarget(parser, common, platform, &error);
    if (!target) {
        return usageError(err, u"view"_s, error);
    }
    const QString program = windowProgram();
    if (program.isEmpty()) {
        err << u"tellwyn: the window program tellwyn-view is not installed beside tellwyn"_s << Qt::endl;
        return exitFailure;
    }
    int exitCode = exitOk;
    std::optional<Credentials> credentials =
        readCredentials(parser, signIn, *target, u"view"_s, err, &exitCode);
    if (!credentials) {
        return exitCode;
    }

    int pipeEnds[2];
    if (::pipe(pipeEnds) != 0) {
        err << u"tellwyn: cannot hand the password over: %1"_s.arg(
                   QString::fromLocal8Bit(std::strerror(errno)))
            << Qt::endl;
        return exitFailure;
    }
    const QByteArray password = credentials->password.toUtf8() + '\n';
    credentials->password.fill(u'\0');
    // A password is far smaller than a pipe's buffer, so this never blocks.
    const bool written =
        ::write(pipeEnds[1], password.constData(), std::size_t(password.size())) == password.size();
    ::close(pipeEnds[1]);
    if (!written) {
        err << u"tellwyn: cannot hand the password over"_s << Qt::endl;
        return exitFailure;
    }

    QStringList windowArguments{program,
                                target->address.display(),
                                u"--user"_s,
                                credentials->user,
                                u"--name"_s,
                                target->name,
                                u"--known-agents"_s,
                                target->knownAgents,
                                u"--password-fd"_s,
                                QString::number(pipeEnds[0])};
    for (const QCommandLineOption* option : {&actualSize, &overlay, &balanced, &physicalKeys}) {
        if (parser.isSet(*option)) {
            windowArguments.append(u"--"_s + option->names().constFirst());
        }
    }
    std::vector<QByteArray> encoded;
    for (const QString& argument : windowArguments) {
        encoded.push_back(QFile::encodeName(argument));
    }
    std::vector<char*> argv;
    for (QByteArray& argument : encoded) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    out.flush();
    err.flush();
    ::execv(argv.front(), argv.data());
    err << u"tellwyn: cannot start %1: %2"_s.arg(program, QString::fromLocal8Bit(std::strerror(errno)))
        << Qt::endl;
    ::close(pipeEnds[0]);
    return exitFailure;
}

} // namespace tellwyn
