// tellwyn-view: the window of `tellwyn view`. `tellwyn view` reads the options and the password
// on the terminal and then runs this program with the password on a pipe (--password-fd);
// started by itself, from a desktop menu for instance, it asks for the password in a dialog.

#include "linux/avahi_service_browser.h"
#include "linux/linux_system_identity.h"
#include "linux/unix_signal_watcher.h"
#include "message_text.h"
#include "remote_input.h"
#include "screen_session.h"
#include "screen_stream.h"
#include "screen_view.h"
#include "viewer_command.h"

#include <QAction>
#include <QApplication>
#include <QClipboard>
#include <QCommandLineParser>
#include <QInputDialog>
#include <QMainWindow>
#include <QMenuBar>
#include <QMessageBox>
#include <QTimer>
#include <cstdio>

using namespace Qt::StringLiterals;
using namespace tellwyn;

namespace {

constexpr auto heartbeatInterval = std::chrono::seconds(20);

std::optional<QString> readPasswordFrom(int fd) {
    FILE* input = ::fdopen(fd, "r");
    if (input == nullptr) {
        return std::nullopt;
    }
    QByteArray line;
    for (int c = std::fgetc(input); c != EOF && c != '\n'; c = std::fgetc(input)) {
        line.append(char(c));
    }
    std::fclose(input);
    QString password = QString::fromUtf8(line);
    line.fill('\0');
    return password;
}

QString figuresText(const ScreenStream::Figures& figures, std::optional<double> roundTrip) {
    QString text = u"%1 fps   %2 KiB/s"_s.arg(figures.framesPerSecond, 0, 'f', 1)
                       .arg(figures.bytesPerSecond / 1024.0, 0, 'f', 1);
    if (roundTrip) {
        text += u"   round trip %1 ms"_s.arg(*roundTrip, 0, 'f', 0);
    }
    return text;
}

} // namespace

int main(int argc, char* argv[]) {
    QApplication application(argc, argv);
    QApplication::setApplicationName(u"tellwyn-view"_s);
    QApplication::setApplicationVersion(QLatin1String(TELLWYN_VERSION));
    QTextStream out(stdout);
    QString errorText;
    QTextStream err(&errorText);

    QCommandLineParser parser;
    parser.setApplicationDescription(u"The window of 'tellwyn view': the agent's screen, live."_s);
    CommonOptions common;
    SignInOptions signIn;
    const QCommandLineOption passwordFd(u"password-fd"_s, u"Read the password from file descriptor FD."_s,
                                        u"FD"_s);
    const QCommandLineOption actualSize(u"actual-size"_s,
                                        u"Start pixel for pixel instead of scaled to fit."_s);
    const QCommandLineOption overlay(u"overlay"_s, u"Show frames per second, bandwidth and latency."_s);
    const QCommandLineOption balanced(u"balanced"_s, u"Ask for balanced quality instead of lossless."_s);
    const QCommandLineOption physicalKeys(
        u"physical-keys"_s, u"Type keys by their place on the keyboard instead of their symbol."_s);
    parser.addOptions({common.help, common.name, common.knownAgents, signIn.user, passwordFd, actualSize,
                       overlay, balanced, physicalKeys});
    parser.addPositionalArgument(u"HOST[:PORT]"_s, u"Where the agent listens."_s);
    // Started by `tellwyn view`, errors go to its terminal; started from a desktop menu, to a dialog.
    bool fromDesktop = false;
    const auto report = [&](int code) {
        err.flush();
        std::fputs(errorText.toUtf8().constData(), stderr);
        if (code != exitOk && fromDesktop && !errorText.trimmed().isEmpty()) {
            QMessageBox::warning(nullptr, u"tellwyn view"_s, errorText.trimmed());
        }
        return code;
    };
    if (const std::optional<int> finished =
            parseCommandLine(parser, QApplication::arguments(), common, u"view"_s, out, err)) {
        return report(*finished);
    }
    // The window program is built like `tellwyn` itself, with the machine's own services.
    LinuxSystemIdentity identity;
    const ViewerPlatform platform{
        identity, [] { return std::make_unique<AvahiServiceBrowserBackend>(); },
        [](QObject* context, std::function<void()> handler) -> std::unique_ptr<QObject> {
            auto watcher = std::make_unique<UnixSignalWatcher>();
            QObject::connect(watcher.get(), &UnixSignalWatcher::terminationRequested, context,
                             [handler = std::move(handler)](int) { handler(); });
            return watcher;
        }};
    QString error;
    const auto target = parseTarget(parser, common, platform, &error);
    if (!target) {
        return report(usageError(err, u"view"_s, error));
    }
    if (!parser.isSet(signIn.user) || parser.value(signIn.user).isEmpty()) {
        return report(usageError(err, u"view"_s, u"give the account's user name with -u USER"_s));
    }
    std::optional<QString> password;
    if (parser.isSet(passwordFd)) {
        bool ok = false;
        const int fd = parser.value(passwordFd).toInt(&ok);
        password = ok ? readPasswordFrom(fd) : std::nullopt;
    } else {
        fromDesktop = true;
        bool ok = false;
        const QString typed = QInputDialog::getText(
            nullptr, u"tellwyn view"_s,
            u"Password for %1 on %2:"_s.arg(parser.value(signIn.user), target->address.display()),
            QLineEdit::Password, {}, &ok);
        if (ok) {
            password = typed;
        }
    }
    if (!password) {
        return report(exitFailure);
    }

    ViewerSession session(target->address, target->name, target->knownAgents, out, err);
    RemoteScreen screen;
    ScreenStream stream(screen);
    ScreenSession::Request request;
    request.lossless = !parser.isSet(balanced);
    request.keysByPlace = parser.isSet(physicalKeys);
    ScreenSession screenSession(session, stream, request);

    QMainWindow window;
    auto* view = new ScreenView(screen);
    view->setFitToWindow(!parser.isSet(actualSize));
    view->setOverlayVisible(parser.isSet(overlay));
    window.setCentralWidget(view);
    QString agentName = target->address.display();
    RemoteInput input(*view, [&session, &stream](const InputEventMessage& event) {
        if (stream.streamID()) {
            session.send(event);
        }
    });
    const auto showTitle = [&window, &agentName, &input] {
        window.setWindowTitle(
            input.holdsKeyboard()
                ? u"%1 - tellwyn view (Ctrl+Alt+Shift gives the keyboard back)"_s.arg(agentName)
                : u"%1 - tellwyn view"_s.arg(agentName));
    };
    QObject::connect(&input, &RemoteInput::holdsKeyboardChanged, &window, showTitle);
    showTitle();
    QMenu* viewMenu = window.menuBar()->addMenu(u"&View"_s);
    QAction* fit = viewMenu->addAction(u"Scale to &Fit"_s);
    fit->setCheckable(true);
    fit->setChecked(view->fitToWindow());
    QObject::connect(fit, &QAction::toggled, view, &ScreenView::setFitToWindow);
    QAction* figures = viewMenu->addAction(u"Show Stream &Figures"_s);
    figures->setCheckable(true);
    figures->setChecked(view->overlayVisible());
    QObject::connect(figures, &QAction::toggled, view, &ScreenView::setOverlayVisible);
    viewMenu->addSeparator();
    QAction* quit = viewMenu->addAction(u"&Close"_s);
    QObject::connect(quit, &QAction::triggered, &session, [&session] { session.finish(exitOk); });

    QObject::connect(&stream, &ScreenStream::sizeChanged, view, [&window, view](QSize size) {
        view->screenResized();
        if (!window.isVisible()) {
            window.resize(size.boundedTo(QSize(1280, 800)) + QSize(0, window.menuBar()->sizeHint().height()));
            window.show();
        }
    });
    QObject::connect(&stream, &ScreenStream::painted, view, &ScreenView::screenChanged);
    QObject::connect(&stream, &ScreenStream::cursorChanged, view, &ScreenView::cursorChanged);
    QObject::connect(&stream, &ScreenStream::ended, &session,
                     [&session, &err](const QString& reason, bool refused) {
                         err << u"tellwyn: "_s << reason << Qt::endl;
                         session.finish(refused ? exitProtocolError : exitOk);
                     });
    QObject::connect(&stream, &ScreenStream::failed, &session,
                     [&session, &err](quint32, const QString& reason) {
                         err << u"tellwyn: the screen stream broke: "_s << reason << Qt::endl;
                         session.finish(exitProtocolError);
                     });
    QTimer figuresTimer;
    figuresTimer.setInterval(std::chrono::seconds(1));
    QObject::connect(&figuresTimer, &QTimer::timeout, view, [view, &stream, &screenSession] {
        if (view->overlayVisible()) {
            view->setOverlayText(figuresText(stream.figures(), screenSession.roundTripMilliseconds()));
            screenSession.measureRoundTrip();
        }
    });
    figuresTimer.start();

    QTimer heartbeats;
    heartbeats.setInterval(heartbeatInterval);
    QObject::connect(&heartbeats, &QTimer::timeout, &session,
                     [&session] { session.send(HeartbeatMessage{std::nullopt}); });
    QObject::connect(&session, &ViewerSession::ready, &window,
                     [&agentName, &showTitle](const HandshakeResponseMessage& response) {
                         agentName = response.agentName;
                         showTitle();
                     });

    // The clipboards in step: a copy on either side can be pasted on the other, until the agent
    // says it does not share its clipboard.
    QClipboard* clipboard = QGuiApplication::clipboard();
    QString sharedText;
    bool signedIn = false;
    bool clipboardRefused = false;
    QObject::connect(clipboard, &QClipboard::dataChanged, &session, [&] {
        const QString text = clipboard->text();
        if (signedIn && !clipboardRefused && !text.isEmpty() && text != sharedText &&
            text.toUtf8().size() <= HLVP::maxClipboardBytes) {
            sharedText = text;
            session.send(ClipboardMessage{text, std::nullopt});
        }
    });
    QStringList refusalsShown;
    QObject::connect(&session, &ViewerSession::messageReceived, &window, [&](const HLVPMessage& message) {
        if (const auto* copied = std::get_if<ClipboardMessage>(&message)) {
            sharedText = copied->text;
            clipboard->setText(copied->text);
        } else if (const auto* refusal = std::get_if<ErrorMessage>(&message);
                   refusal && (refusal->refersTo == u"inputEvent"_s || refusal->refersTo == u"clipboard"_s)) {
            clipboardRefused = clipboardRefused || refusal->refersTo == u"clipboard"_s;
            // Said once: input keeps coming while the agent refuses it.
            if (!refusalsShown.contains(refusal->code)) {
                refusalsShown.append(refusal->code);
                err << u"tellwyn: the agent refused: %1"_s.arg(agentText(refusal->message)) << Qt::endl;
                report(exitOk);
                errorText.clear();
            }
        }
    });
    signInWhenReady(
        session, Credentials{parser.value(signIn.user), *password},
        [&] {
            signedIn = true;
            heartbeats.start();
            screenSession.start();
        },
        err);
    password->fill(u'\0');
    // Closing the window says goodbye to the agent first.
    QApplication::setQuitOnLastWindowClosed(false);
    QObject::connect(&application, &QApplication::lastWindowClosed, &session,
                     [&session] { session.finish(exitOk); });
    return report(runSession(session, platform));
}
