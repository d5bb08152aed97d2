#include "hlvp_server_client.h"

#include "account_verifier.h"
#include "file_transfer_receiver.h"
#include "hlvp_codec.h"
#include "screen_stream_hub.h"
#include "system_clipboard.h"

#include <QSslSocket>
#include <QTimer>
#include <algorithm>

using namespace Qt::StringLiterals;

namespace tellwyn {

namespace {

constexpr auto closeGracePeriod = std::chrono::seconds(2);
// Stream messages are written while less than this waits in the socket, so other traffic and
// the viewer's own pace decide, and the connection's output limit is never reached by a stream.
constexpr qint64 streamOutputBytes = 1024 * 1024;

bool isFileTransferMessage(const HLVPMessage& message) {
    return std::holds_alternative<FileOfferMessage>(message) ||
           std::holds_alternative<FileChunkMessage>(message) ||
           std::holds_alternative<FileCompleteMessage>(message) ||
           std::holds_alternative<FileCancelMessage>(message);
}

} // namespace

QString remoteHostKeyFor(const QHostAddress& address) {
    bool isMapped = false;
    const quint32 ipv4 = address.toIPv4Address(&isMapped);
    if (isMapped) {
        return QHostAddress(ipv4).toString();
    }
    QHostAddress withoutScope = address;
    withoutScope.setScopeId({});
    return withoutScope.toString();
}

HLVPServerClient::HLVPServerClient(QSslSocket* socket, QString clientKey, Settings settings, QObject* parent)
    : QObject(parent), m_socket(socket), m_clientKey(std::move(clientKey)),
      m_remoteHostKey(remoteHostKeyFor(socket->peerAddress())), m_settings(std::move(settings)),
      m_frameTokens(m_settings.unauthenticatedFrameBurst) {
    socket->setParent(this);
    // Bytes beyond one whole frame stay in the kernel, so a fast sender is slowed by TCP itself.
    socket->setReadBufferSize(wire::maxFrameBytes + wire::frameHeaderBytes);
    m_tokenClock.start();
    m_transfers = std::make_unique<FileTransferReceiver>(
        [this](const HLVPMessage& message) { sendEncryptedMessage(message); },
        [this] {
            if (m_onViewerActivity) {
                m_onViewerActivity();
            }
        },
        [this](const QString& message, const QString& category) { log(message, category); });
    m_frameDeadline = new QTimer(this);
    m_frameDeadline->setSingleShot(true);
    connect(m_frameDeadline, &QTimer::timeout, this, [this] {
        closeForProtocolError(u"frameTimeout"_s, u"a frame did not arrive whole in time"_s, u"PROTOCOL"_s);
    });
    connect(socket, &QSslSocket::disconnected, this, &HLVPServerClient::onSocketDisconnected);
    connect(socket, &QSslSocket::readyRead, this, &HLVPServerClient::readFrames);
    connect(socket, &QSslSocket::encryptedBytesWritten, this, &HLVPServerClient::flushStreamOutput);
    // Bytes that arrived with the end of the TLS handshake are read once the owner is set up.
    QMetaObject::invokeMethod(this, &HLVPServerClient::readFrames, Qt::QueuedConnection);
}

HLVPServerClient::~HLVPServerClient() {
    // Nothing of this object may run from the socket's last signals.
    if (m_socket) {
        QObject::disconnect(m_socket, nullptr, this, nullptr);
    }
    m_transfers.reset();
    if (m_screenHub && m_streamHandle != 0) {
        m_screenHub->stop(m_streamHandle);
    }
    if (m_input) {
        m_input->releaseAll();
    }
    if (m_socket) {
        m_socket->abort();
    }
}

void HLVPServerClient::setLogFunction(HLVP::LogFunction logFunction) {
    m_log = std::move(logFunction);
}

void HLVPServerClient::log(const QString& message, const QString& category) const {
    if (m_log) {
        m_log(u"Client %1: %2"_s.arg(m_clientKey, message), category);
    }
}

void HLVPServerClient::configureFileTransfers(bool enabled, const QString& destinationDirectory) {
    m_transfers->configure(enabled, destinationDirectory);
}

void HLVPServerClient::configureClipboardSharing(bool enabled) {
    m_clipboardSharingEnabled = enabled;
}

bool HLVPServerClient::isOpen() const {
    return m_socket && !m_closing && m_state != HLVP::ConnectionState::disconnected;
}

void HLVPServerClient::setConnectionState(HLVP::ConnectionState state) {
    if (m_state == state) {
        return;
    }
    m_state = state;
    Q_EMIT connectionStateChanged(state);
}

bool HLVPServerClient::markAuthenticated() {
    if (!isOpen()) {
        return false;
    }
    setConnectionState(HLVP::ConnectionState::authenticated);
    return true;
}

void HLVPServerClient::completeLater(SendCompletion completion, std::optional<HLVPError> error) {
    if (!completion) {
        return;
    }
    QMetaObject::invokeMethod(
        this, [completion = std::move(completion), error = std::move(error)] { completion(error); },
        Qt::QueuedConnection);
}

void HLVPServerClient::sendEncryptedMessage(const HLVPMessage& message, SendCompletion completion) {
    if (!isOpen()) {
        completeLater(std::move(completion),
                      HLVPError(HLVPError::Code::notConnected, u"The connection to the viewer is closed."_s));
        return;
    }
    const QByteArray frame = wire::encodeFrame(message);
    const qint64 pending = m_socket->bytesToWrite() + m_socket->encryptedBytesToWrite();
    if (pending + frame.size() > m_settings.maxPendingOutputBytes) {
        log(u"the viewer is not reading (%1 bytes waiting); closing the connection"_s.arg(pending),
            u"SECURITY"_s);
        completeLater(std::move(completion),
                      HLVPError(HLVPError::Code::sendFailed,
                                u"The viewer stopped reading; the connection was closed."_s));
        m_closing = true;
        m_socket->abort();
        return;
    }
    if (m_socket->write(frame) != frame.size()) {
        completeLater(std::move(completion), HLVPError(HLVPError::Code::sendFailed,
                                                       u"Sending failed: %1"_s.arg(m_socket->errorString())));
        return;
    }
    completeLater(std::move(completion), std::nullopt);
}

void HLVPServerClient::receiveClipboard(const ClipboardMessage& message) {
    if (!m_clipboardSharingEnabled || m_settings.systemClipboard == nullptr) {
        refuse(u"clipboardSharingDisabled"_s, u"Clipboard sharing is switched off on this computer."_s,
               u"clipboard"_s);
        return;
    }
    const qsizetype bytes = message.text.toUtf8().size();
    if (bytes > HLVP::maxClipboardBytes) {
        refuse(u"clipboardTooLarge"_s,
               u"Clipboard text of %1 bytes is over the limit of %2 bytes."_s.arg(bytes).arg(
                   HLVP::maxClipboardBytes),
               u"clipboard"_s);
        return;
    }
    m_settings.systemClipboard->setString(message.text);
    if (m_onClipboardReceived) {
        m_onClipboardReceived(message.text);
    }
}

void HLVPServerClient::sendClipboardSync(const QString& text, SendCompletion completion) {
    std::optional<QString> problem;
    if (m_state != HLVP::ConnectionState::authenticated) {
        problem = u"The viewer has not signed in."_s;
    } else if (!m_clipboardSharingEnabled) {
        problem = u"Clipboard sharing is switched off for this connection."_s;
    } else if (text.toUtf8().size() > HLVP::maxClipboardBytes) {
        problem = u"The text is larger than %1 bytes."_s.arg(HLVP::maxClipboardBytes);
    }
    if (problem && isOpen()) {
        completeLater(std::move(completion), HLVPError(HLVPError::Code::sendFailed, *problem));
        return;
    }
    sendEncryptedMessage(ClipboardMessage{text, std::nullopt}, std::move(completion));
}

void HLVPServerClient::configureInput(InputInjectorFactory makeInjector, InputAccessCheck check) {
    m_makeInput = std::move(makeInjector);
    m_inputAccessCheck = std::move(check);
}

std::optional<ErrorMessage> HLVPServerClient::inputRefusal() const {
    if (m_streamID == 0) {
        return ErrorMessage{u"notStreaming"_s, u"Start a screen stream before sending input."_s, {}, {}};
    }
    if (!m_makeInput) {
        return ErrorMessage{
            u"inputUnsupported"_s, u"This computer cannot take input from viewers."_s, {}, {}};
    }
    return m_inputAccessCheck ? m_inputAccessCheck() : std::nullopt;
}

void HLVPServerClient::receiveInput(const InputEventMessage& event) {
    if (const std::optional<ErrorMessage> refusal = inputRefusal()) {
        refuse(refusal->code, refusal->message, u"inputEvent"_s);
        return;
    }
    if (!m_input) {
        m_input = m_makeInput();
        if (!m_input) {
            refuse(u"inputUnsupported"_s, u"This computer cannot take input from viewers."_s,
                   u"inputEvent"_s);
            return;
        }
        m_input->setKeyMode(m_keyMode);
    }
    const QPoint origin = m_screenHub ? m_screenHub->origin(m_streamHandle) : QPoint();
    if (event.x && event.y) {
        m_input->movePointer(origin.x() + int(*event.x), origin.y() + int(*event.y));
    }
    const auto button = InputInjector::Button(event.button.value_or(1));
    const quint32 keysym = event.keysym.value_or(0);
    const quint32 evdev = event.keyCode.value_or(0);
    if (event.kind == u"buttonPress"_s || event.kind == u"buttonRelease"_s) {
        m_input->setButtonPressed(button, event.kind == u"buttonPress"_s);
    } else if (event.kind == u"wheel"_s) {
        m_input->scroll(int(event.wheelX.value_or(0)), int(event.wheelY.value_or(0)));
    } else if (event.kind == u"keyPress"_s) {
        if (!m_input->pressKey(keysym, evdev)) {
            log(u"could not press the key (keysym 0x%1, key code %2)"_s.arg(keysym, 0, 16).arg(evdev),
                u"INPUT"_s);
        }
    } else if (event.kind == u"keyRelease"_s) {
        m_input->releaseKey(keysym, evdev);
    } else if (event.kind == u"text"_s) {
        if (!m_input->typeText(event.text.value_or(QString()))) {
            log(u"could not type every character of a text"_s, u"INPUT"_s);
        }
    } else if (event.kind != u"pointerMove"_s) {
        refuse(u"unknownInput"_s,
               u"\"%1\" is not a kind of input this computer takes."_s.arg(event.kind.left(64)),
               u"inputEvent"_s);
    }
}

void HLVPServerClient::configureScreenStreaming(ScreenStreamHub* hub, ScreenAccessCheck check) {
    m_screenHub = hub;
    m_screenAccessCheck = std::move(check);
}

void HLVPServerClient::stopStreaming() {
    endScreenStream(u"agentStopped"_s, u"The computer stopped streaming its screen."_s);
}

void HLVPServerClient::startScreenStream(const ScreenCaptureRequest& request) {
    std::optional<ErrorMessage> refusal =
        m_screenAccessCheck ? m_screenAccessCheck(request) : std::optional<ErrorMessage>();
    if (!refusal && !m_screenHub) {
        refusal = ErrorMessage{
            u"screenStreamingUnsupported"_s, u"This computer cannot stream its screen."_s, {}, {}};
    }
    if (refusal) {
        log(u"refused screenCaptureRequest: %1"_s.arg(refusal->message), u"SCREEN"_s);
        sendEncryptedMessage(
            ErrorMessage{refusal->code, refusal->message, u"screenCaptureRequest"_s, request.sequenceNumber});
        return;
    }
    endScreenStream(u"replaced"_s, u"The viewer started another stream."_s);
    m_keyMode = request.keyMode == u"byPhysicalKey"_s ? InputInjector::KeyMode::byPhysicalKey
                                                      : InputInjector::KeyMode::bySymbol;
    if (m_input) {
        m_input->setKeyMode(m_keyMode);
    }
    ScreenStreamHub::Request wanted;
    wanted.streamID = ++m_lastStreamID;
    wanted.displayID = request.displayID;
    wanted.lossless = request.mode ? *request.mode == u"lossless"_s : request.quality.value_or(0.0) >= 1.0;
    wanted.maxFPS = std::clamp<quint32>(request.maxFPS.value_or(ScreenStreamHub::defaultMaxFPS), 1,
                                        ScreenStreamHub::highestMaxFPS);
    wanted.sequenceNumber = request.sequenceNumber;
    m_streamID = wanted.streamID;
    m_streamHandle = m_screenHub->start(wanted, [this, id = wanted.streamID](const HLVPMessage& message) {
        receiveStreamMessage(id, message);
    });
}

void HLVPServerClient::receiveStreamMessage(quint32 streamID, const HLVPMessage& message) {
    if (streamID != m_streamID || !isOpen()) {
        return;
    }
    queueStreamMessage(message);
    if (const auto* refusal = std::get_if<ErrorMessage>(&message)) {
        log(u"refused screenCaptureRequest: %1"_s.arg(refusal->message), u"SCREEN"_s);
        m_streamID = 0;
        m_streamHandle = 0;
    } else if (const auto* started = std::get_if<ScreenStreamStartedMessage>(&message)) {
        if (m_onScreenStreamChanged) {
            m_onScreenStreamChanged(true, streamID,
                                    u"%1 × %2, %3, up to %4 frames per second"_s.arg(started->width)
                                        .arg(started->height)
                                        .arg(started->mode)
                                        .arg(started->maxFPS));
        }
    } else if (const auto* ended = std::get_if<ScreenStreamEndedMessage>(&message)) {
        m_streamID = 0;
        m_streamHandle = 0;
        if (m_input) {
            m_input->releaseAll();
        }
        if (m_onScreenStreamChanged) {
            m_onScreenStreamChanged(false, streamID, ended->reason);
        }
    }
}

void HLVPServerClient::endScreenStream(const QString& reason, const QString& text) {
    if (m_streamID == 0) {
        return;
    }
    // Input rides on the stream: nothing the viewer held stays pressed once the stream is gone.
    if (m_input) {
        m_input->releaseAll();
    }
    const quint32 streamID = m_streamID;
    m_streamID = 0;
    if (m_screenHub) {
        m_screenHub->stop(m_streamHandle);
    }
    m_streamHandle = 0;
    // Frames not yet written are of no use any more.
    m_streamOutput.clear();
    if (!reason.isEmpty() && isOpen()) {
        queueStreamMessage(ScreenStreamEndedMessage{streamID, reason, text, std::nullopt});
    }
    if (m_onScreenStreamChanged) {
        m_onScreenStreamChanged(false, streamID, reason.isEmpty() ? u"disconnected"_s : reason);
    }
}

void HLVPServerClient::queueStreamMessage(const HLVPMessage& message) {
    m_streamOutput.push_back(wire::encodeFrame(message));
    flushStreamOutput();
}

void HLVPServerClient::flushStreamOutput() {
    while (!m_streamOutput.empty() && isOpen() &&
           m_socket->bytesToWrite() + m_socket->encryptedBytesToWrite() < streamOutputBytes) {
        const QByteArray frame = std::move(m_streamOutput.front());
        m_streamOutput.pop_front();
        m_socket->write(frame);
    }
}

void HLVPServerClient::disconnect() {
    if (!m_socket || m_state == HLVP::ConnectionState::disconnected || m_closeDeadline != nullptr) {
        return;
    }
    m_closing = true;
    m_frameDeadline->stop();
    m_transfers->abortAll(std::nullopt);
    endScreenStream({}, {});
    if (m_socket->state() == QAbstractSocket::UnconnectedState) {
        onSocketDisconnected();
        return;
    }
    m_closeDeadline = new QTimer(this);
    m_closeDeadline->setSingleShot(true);
    connect(m_closeDeadline, &QTimer::timeout, this, [this] {
        if (m_socket) {
            m_socket->abort();
        }
    });
    m_closeDeadline->start(closeGracePeriod);
    m_socket->disconnectFromHost();
}

void HLVPServerClient::onSocketDisconnected() {
    if (m_state == HLVP::ConnectionState::disconnected) {
        return;
    }
    m_closing = true;
    if (m_closeDeadline != nullptr) {
        m_closeDeadline->stop();
    }
    m_frameDeadline->stop();
    m_transfers->abortAll(std::nullopt);
    endScreenStream({}, {});
    log(u"connection closed"_s, u"CONNECTION"_s);
    setConnectionState(HLVP::ConnectionState::disconnected);
}

void HLVPServerClient::closeForProtocolError(const QString& code, const QString& reason,
                                             const QString& category) {
    if (!isOpen()) {
        return;
    }
    log(u"closing the connection: %1"_s.arg(reason), category);
    // The viewer learns why before the connection ends; the frame is small and bounded.
    m_socket->write(wire::encodeFrame(ErrorMessage{code, reason, std::nullopt, std::nullopt}));
    disconnect();
}

void HLVPServerClient::refuse(const QString& code, const QString& text,
                              const std::optional<QString>& refersTo) {
    log(u"refused %1: %2"_s.arg(refersTo.value_or(u"a message"_s), text), u"SECURITY"_s);
    sendEncryptedMessage(ErrorMessage{code, text, refersTo, std::nullopt});
}

bool HLVPServerClient::takeFrameToken(bool isFileChunk) {
    const bool authenticated = m_state == HLVP::ConnectionState::authenticated;
    const double burst =
        authenticated ? m_settings.authenticatedFrameBurst : m_settings.unauthenticatedFrameBurst;
    const double rate =
        authenticated ? m_settings.authenticatedFramesPerSecond : m_settings.unauthenticatedFramesPerSecond;
    const double elapsed = double(m_tokenClock.restart()) / 1000.0;
    m_frameTokens = std::min(burst, m_frameTokens + elapsed * rate);
    if (isFileChunk) {
        return true;
    }
    if (m_frameTokens < 1.0) {
        return false;
    }
    m_frameTokens -= 1.0;
    return true;
}

void HLVPServerClient::readFrames() {
    while (isOpen() && !m_goodbyeReceived) {
        const bool authenticated = m_state == HLVP::ConnectionState::authenticated;
        const qsizetype limit = authenticated ? wire::maxFrameBytes : wire::maxUnauthenticatedFrameBytes;
        wire::FrameRead read = wire::readFrame(*m_socket, limit);
        if (read.status == wire::FrameRead::Status::error) {
            closeForProtocolError(u"frameTooLarge"_s, read.error, u"PROTOCOL"_s);
            return;
        }
        if (read.status == wire::FrameRead::Status::incomplete) {
            if (m_socket->bytesAvailable() == 0) {
                m_frameDeadline->stop();
            } else if (!m_frameDeadline->isActive()) {
                m_frameDeadline->start(authenticated ? m_settings.authenticatedFrameTimeout
                                                     : m_settings.unauthenticatedFrameTimeout);
            }
            return;
        }
        m_frameDeadline->stop();
        wire::DecodeResult decoded = wire::decodeMessage(read.body);
        if (const auto* error = std::get_if<wire::DecodeError>(&decoded)) {
            closeForProtocolError(u"malformedMessage"_s, error->reason, u"PROTOCOL"_s);
            return;
        }
        HLVPMessage message = std::get<HLVPMessage>(std::move(decoded));
        if (std::holds_alternative<AuthenticationMessage>(message)) {
            wipeSecret(read.body); // the password's bytes as they came off the wire
        }
        // File chunks and frame acknowledgements are paced by their windows instead.
        if (!takeFrameToken(std::holds_alternative<FileChunkMessage>(message) ||
                            std::holds_alternative<ScreenFrameAckMessage>(message))) {
            closeForProtocolError(u"rateLimited"_s,
                                  u"more than %1 messages per second"_s.arg(
                                      authenticated ? m_settings.authenticatedFramesPerSecond
                                                    : m_settings.unauthenticatedFramesPerSecond),
                                  u"SECURITY"_s);
            return;
        }
        handleMessage(std::move(message));
    }
}

void HLVPServerClient::handleMessage(HLVPMessage message) {
    const QString wireType = wireTypeName(message);
    const MessageTraits& traits = messageTraits(message);
    if (traits.direction == Direction::agentToViewer) {
        closeForProtocolError(u"unexpectedMessage"_s,
                              u"a viewer does not send \"%1\" messages"_s.arg(wireType), u"PROTOCOL"_s);
        return;
    }
    if (m_state != HLVP::ConnectionState::authenticated && traits.beforeSignIn != BeforeSignIn::allowed) {
        refuse(u"notAuthenticated"_s, u"Sign in before sending \"%1\" messages."_s.arg(wireType), wireType);
        return;
    }

    if (const auto* handshake = std::get_if<HandshakeMessage>(&message)) {
        if (handshake->protocolVersion < HLVP::minimumProtocolVersion) {
            closeForProtocolError(u"unsupportedVersion"_s,
                                  u"protocol version %1 is older than the oldest this agent speaks (%2)"_s
                                      .arg(handshake->protocolVersion)
                                      .arg(HLVP::minimumProtocolVersion),
                                  u"PROTOCOL"_s);
            return;
        }
        m_handshakeReceived = true;
        m_negotiatedVersion = std::min(handshake->protocolVersion, HLVP::protocolVersion);
        sendEncryptedMessage(HandshakeResponseMessage{m_settings.agentName, m_negotiatedVersion,
                                                      m_settings.agentVersion, handshake->sequenceNumber});
    } else if (const auto* heartbeat = std::get_if<HeartbeatMessage>(&message)) {
        sendEncryptedMessage(HeartbeatResponseMessage{heartbeat->sequenceNumber});
    } else if (std::holds_alternative<DisconnectMessage>(message)) {
        // Nothing after a goodbye is read; the agent closes the connection.
        m_goodbyeReceived = true;
        endScreenStream({}, {});
        m_frameDeadline->stop();
    } else if (const auto* clipboard = std::get_if<ClipboardMessage>(&message)) {
        receiveClipboard(*clipboard);
        return;
    } else if (std::holds_alternative<ClipboardRequestMessage>(message)) {
        const std::optional<QString> text =
            m_settings.systemClipboard != nullptr ? m_settings.systemClipboard->string() : std::nullopt;
        if (!m_clipboardSharingEnabled || m_settings.systemClipboard == nullptr) {
            refuse(u"clipboardSharingDisabled"_s, u"Clipboard sharing is switched off on this computer."_s,
                   wireType);
        } else if (text && text->toUtf8().size() > HLVP::maxClipboardBytes) {
            refuse(u"clipboardTooLarge"_s,
                   u"The clipboard text is larger than %1 bytes."_s.arg(HLVP::maxClipboardBytes), wireType);
        } else {
            sendEncryptedMessage(ClipboardMessage{text.value_or(QString()),
                                                  std::get<ClipboardRequestMessage>(message).sequenceNumber});
        }
        return;
    } else if (isFileTransferMessage(message)) {
        m_transfers->handle(message);
        return;
    } else if (const auto* event = std::get_if<InputEventMessage>(&message)) {
        receiveInput(*event);
        if (m_onViewerActivity) {
            m_onViewerActivity();
        }
        return;
    } else if (const auto* request = std::get_if<ScreenCaptureRequest>(&message)) {
        startScreenStream(*request);
        return;
    } else if (const auto* ack = std::get_if<ScreenFrameAckMessage>(&message)) {
        if (m_screenHub && ack->streamID == m_streamID && m_streamID != 0) {
            m_screenHub->acknowledge(m_streamHandle, ack->frame);
            if (m_onViewerActivity) {
                m_onViewerActivity();
            }
        }
        return;
    } else if (const auto* stop = std::get_if<ScreenStopMessage>(&message)) {
        if (!stop->streamID || *stop->streamID == m_streamID) {
            endScreenStream(u"viewerStopped"_s, u"The viewer stopped the stream."_s);
        }
        return;
    }
    if (m_onMessageReceived) {
        m_onMessageReceived(message);
    }
}

} // namespace tellwyn
