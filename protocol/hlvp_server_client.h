#pragma once

#include "hlvp.h"
#include "hlvp_error.h"
#include "hlvp_messages.h"
#include "input_injector.h"

#include <QElapsedTimer>
#include <QHostAddress>
#include <QObject>
#include <QPointer>
#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <optional>

class QSslSocket;

namespace tellwyn {
class FileTransferReceiver;
class ScreenStreamHub;
class SystemClipboard;
} // namespace tellwyn
class QTimer;

namespace tellwyn {

// One viewer connection on the agent's side. Created by HLVPServer once TLS is up; lives on the
// main thread, and every callback is made there. Its key is unique per connection;
// `remoteHostKey` names the remote host, so two connections from one host share it.
//
// Phases: a connection starts `connected`. Before sign-in it may only hand-shake, sign in,
// heartbeat and disconnect; anything else is answered with a "notAuthenticated" error and
// dropped. `markAuthenticated()` moves an open connection to `authenticated`; once the
// connection is closing or `disconnected` it returns false and nothing changes.
class HLVPServerClient : public QObject {
    Q_OBJECT
public:
    struct Settings {
        QString agentName; // sent in the handshake reply
        QString agentVersion;
        SystemClipboard* systemClipboard =
            nullptr; // where received clipboard texts go; none: they are refused
        // Frames a viewer may send in a burst, and per second on average; more closes the
        // connection. File chunks are paced by the transfer window instead.
        int unauthenticatedFrameBurst = 64;
        int unauthenticatedFramesPerSecond = 20;
        int authenticatedFrameBurst = 256;
        int authenticatedFramesPerSecond = 100;
        // A frame must arrive whole within this time of its first byte.
        std::chrono::milliseconds unauthenticatedFrameTimeout{10000};
        std::chrono::milliseconds authenticatedFrameTimeout{60000};
        // Output waiting for a viewer that does not read; more closes the connection.
        qint64 maxPendingOutputBytes = 4 * 1024 * 1024;
    };

    using MessageHandler = std::function<void(const HLVPMessage& message)>;
    using ClipboardHandler = std::function<void(const QString& text)>;
    using ActivityHandler = std::function<void()>;
    using SendCompletion = std::function<void(std::optional<HLVPError> error)>;
    // Why a screen stream may not start now (the refusal to send), or none.
    using ScreenAccessCheck = std::function<std::optional<ErrorMessage>(const ScreenCaptureRequest& request)>;
    // A stream started (`started`), or ended; `detail` describes it, or says why it ended.
    using ScreenStreamObserver = std::function<void(bool started, quint32 streamID, const QString& detail)>;

    HLVPServerClient(QSslSocket* socket, QString clientKey, Settings settings, QObject* parent = nullptr);
    ~HLVPServerClient() override;

    QString clientKey() const { return m_clientKey; }
    QString remoteHostKey() const { return m_remoteHostKey; }
    HLVP::ConnectionState connectionState() const { return m_state; }
    bool isHandshakeReceived() const { return m_handshakeReceived; }
    // The protocol version agreed in the handshake; 0 before it.
    quint32 negotiatedProtocolVersion() const { return m_negotiatedVersion; }

    void setLogFunction(HLVP::LogFunction logFunction);
    // Every decoded message that the agent acts on: handshake, authentication, heartbeats,
    // disconnect, screen and input requests, errors. Clipboard and file traffic go to their own
    // handlers.
    void setOnMessageReceived(MessageHandler handler) { m_onMessageReceived = std::move(handler); }
    void setOnClipboardReceived(ClipboardHandler handler) { m_onClipboardReceived = std::move(handler); }
    // The viewer keeps work going that the owner never sees: file pieces, frame acknowledgements.
    void setOnViewerActivity(ActivityHandler handler) { m_onViewerActivity = std::move(handler); }

    void configureFileTransfers(bool enabled, const QString& destinationDirectory);
    void configureClipboardSharing(bool enabled);
    // Why input may not be taken now (the refusal to send), or none.
    using InputAccessCheck = std::function<std::optional<ErrorMessage>()>;
    using InputInjectorFactory = std::function<std::unique_ptr<InputInjector>()>;
    // A streaming viewer's input goes to an injector of its own, made at its first input once
    // `check` lets it; without a factory every input event is refused. What the viewer holds is
    // let go when its stream ends, for any reason.
    void configureInput(InputInjectorFactory makeInjector, InputAccessCheck check);
    // Streams come from `hub` once `check` lets them; without a hub every request is refused.
    void configureScreenStreaming(ScreenStreamHub* hub, ScreenAccessCheck check);
    void setOnScreenStreamChanged(ScreenStreamObserver observer) {
        m_onScreenStreamChanged = std::move(observer);
    }
    bool isStreaming() const { return m_streamID != 0; }
    bool clipboardSharingEnabled() const { return m_clipboardSharingEnabled; }

    bool markAuthenticated();

    // Queues the message; `completion` runs later on the event loop, with an error when the
    // connection is gone or the viewer has stopped reading.
    void sendEncryptedMessage(const HLVPMessage& message, SendCompletion completion = {});
    // Sends clipboard text; fails when the viewer has not signed in, sharing is off on this
    // connection, or the text is over HLVP::maxClipboardBytes in UTF-8.
    void sendClipboardSync(const QString& text, SendCompletion completion = {});

    // Ends the screen stream, if one runs, telling the viewer; the connection stays open.
    void stopStreaming();
    // Closes the connection: pending output is flushed for a short while, then the socket is cut.
    // Calling it again, or after the connection ended, does nothing.
    void disconnect();

Q_SIGNALS:
    void connectionStateChanged(HLVP::ConnectionState state);

private:
    void setConnectionState(HLVP::ConnectionState state);
    void log(const QString& message, const QString& category) const;
    void onSocketDisconnected();
    void readFrames();
    bool takeFrameToken(bool isFileChunk);
    void handleMessage(HLVPMessage message);
    void receiveClipboard(const ClipboardMessage& message);
    void receiveInput(const InputEventMessage& event);
    std::optional<ErrorMessage> inputRefusal() const;
    void refuse(const QString& code, const QString& text,
                const std::optional<QString>& refersTo = std::nullopt);
    void closeForProtocolError(const QString& code, const QString& reason, const QString& category);
    bool isOpen() const;
    void completeLater(SendCompletion completion, std::optional<HLVPError> error);
    void startScreenStream(const ScreenCaptureRequest& request);
    void receiveStreamMessage(quint32 streamID, const HLVPMessage& message);
    // Ends the running stream; `reason` empty: the connection is gone and nothing is sent.
    void endScreenStream(const QString& reason, const QString& text);
    void queueStreamMessage(const HLVPMessage& message);
    void flushStreamOutput();

    QPointer<QSslSocket> m_socket;
    QString m_clientKey;
    QString m_remoteHostKey;
    Settings m_settings;
    HLVP::ConnectionState m_state = HLVP::ConnectionState::connected;
    bool m_handshakeReceived = false;
    bool m_closing = false;
    bool m_goodbyeReceived = false;
    quint32 m_negotiatedVersion = 0;
    HLVP::LogFunction m_log;
    MessageHandler m_onMessageReceived;
    ClipboardHandler m_onClipboardReceived;
    ActivityHandler m_onViewerActivity;
    bool m_clipboardSharingEnabled = false;
    std::unique_ptr<FileTransferReceiver> m_transfers;
    QPointer<ScreenStreamHub> m_screenHub;
    ScreenAccessCheck m_screenAccessCheck;
    InputInjectorFactory m_makeInput;
    std::unique_ptr<InputInjector> m_input;
    InputInjector::KeyMode m_keyMode = InputInjector::KeyMode::bySymbol;
    InputAccessCheck m_inputAccessCheck;
    ScreenStreamObserver m_onScreenStreamChanged;
    quint32 m_streamID = 0; // the running stream's, 0 when none
    quint32 m_lastStreamID = 0;
    quint64 m_streamHandle = 0;
    // Stream messages wait here while the socket holds enough; the acknowledgement window bounds it.
    std::deque<QByteArray> m_streamOutput;
    QTimer* m_closeDeadline = nullptr;
    QTimer* m_frameDeadline = nullptr;
    double m_frameTokens = 0;
    QElapsedTimer m_tokenClock;
};

// Text naming a remote host: its address, with IPv4-mapped IPv6 addresses written as IPv4.
QString remoteHostKeyFor(const QHostAddress& address);

} // namespace tellwyn
