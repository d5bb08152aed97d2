// tellwyn screenshot: sign in, take one lossless frame of the agent's screen and write it as PNG.

#include "png_writer.h"
#include "remote_screen.h"
#include "screen_session.h"
#include "screen_stream.h"
#include "viewer_command.h"

#include <QTimer>

using namespace Qt::StringLiterals;

namespace tellwyn {

namespace {
// An agent that streams sends its first frame at once; one that stays silent this long will not.
constexpr auto firstFrameDeadline = std::chrono::seconds(60);
} // namespace

int screenshotCommand(const QStringList& arguments, QTextStream& out, QTextStream& err,
                      const ViewerPlatform& platform) {
    QCommandLineParser parser;
    parser.setApplicationDescription(
        u"Signs in to the agent at HOST, as 'tellwyn stats' does, takes one lossless picture of its screen "
        u"(all "
        u"displays, or the one given with --display) and writes it to FILE as PNG. The cursor is not in the "
        u"picture: the agent sends it apart."_s);
    CommonOptions common;
    SignInOptions signIn;
    const QCommandLineOption output({u"o"_s, u"output"_s}, u"Write the picture to FILE (PNG)."_s, u"FILE"_s);
    const QCommandLineOption display(u"display"_s, u"Only the display with this number."_s, u"N"_s);
    parser.addOptions(
        {common.help, common.name, common.knownAgents, signIn.user, signIn.passwordStdin, output, display});
    parser.addPositionalArgument(u"HOST[:PORT]"_s, u"Where the agent listens."_s);
    if (const std::optional<int> finished =
            parseCommandLine(parser, arguments, common, u"screenshot"_s, out, err)) {
        return *finished;
    }
    QString error;
    const auto target = parseTarget(parser, common, platform, &error);
    if (!target) {
        return usageError(err, u"screenshot"_s, error);
    }
    if (!parser.isSet(output) || parser.value(output).isEmpty()) {
        return usageError(err, u"screenshot"_s, u"give the file to write with -o FILE.png"_s);
    }
    ScreenSession::Request request;
    if (parser.isSet(display)) {
        bool ok = false;
        request.displayID = parser.value(display).toUInt(&ok);
        if (!ok) {
            return usageError(err, u"screenshot"_s,
                              u"invalid display number '%1'"_s.arg(parser.value(display)));
        }
    }
    int exitCode = exitOk;
    std::optional<Credentials> credentials =
        readCredentials(parser, signIn, *target, u"screenshot"_s, err, &exitCode);
    if (!credentials) {
        return exitCode;
    }

    ViewerSession session(target->address, target->name, target->knownAgents, out, err);
    RemoteScreen screen;
    ScreenStream stream(screen);
    ScreenSession screenSession(session, stream, request);
    const QString path = parser.value(output);
    QObject::connect(&stream, &ScreenStream::frameCompleted, &session, [&] {
        screenSession.stop();
        QString writeError;
        if (!writePng(path, screen.size().width(), screen.size().height(), screen.pixels(),
                      screen.size().width(), &writeError)) {
            err << u"tellwyn: "_s << writeError << Qt::endl;
            session.finish(exitFailure);
            return;
        }
        session.finish(exitOk);
    });
    QObject::connect(&stream, &ScreenStream::ended, &session, [&](const QString& reason, bool) {
        err << u"tellwyn: "_s << reason << Qt::endl;
        session.finish(exitProtocolError);
    });
    QObject::connect(&stream, &ScreenStream::failed, &session, [&](quint32, const QString& reason) {
        err << u"tellwyn: the screen stream broke: "_s << reason << Qt::endl;
        session.finish(exitProtocolError);
    });
    QTimer deadline;
    deadline.setSingleShot(true);
    QObject::connect(&deadline, &QTimer::timeout, &session, [&] {
        err << u"tellwyn: the agent sent no picture within %1 s"_s.arg(firstFrameDeadline.count())
            << Qt::endl;
        session.finish(exitProtocolError);
    });
    signInWhenReady(
        session, std::move(*credentials),
        [&] {
            screenSession.start();
            deadline.start(firstFrameDeadline);
        },
        err);
    return runSession(session, platform);
}

} // namespace tellwyn
