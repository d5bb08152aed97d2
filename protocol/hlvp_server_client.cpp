#include "hlvp_server_client.h"

#include "account_verifier.h"
#include "file_transfer_receiver.h"
#include "hlvp_codec.h"
#include "system_clipboard.h"

#include <QSslSocket>
#include <QTimer>
#include <algorithm>

using namespace Qt::StringLiterals;

namespace tellwyn {

namespace {

constexpr auto closeGracePeriod = std::chrono::seconds(2);

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
            if (m_onFileTransferActivity) {
                m_onFileTransferActivity();
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
    // Bytes that arrived with the end of the TLS handshake are read once the owner is set up.
    QMetaObject::invokeMethod(this, &HLVPServerClient::readFrames, Qt::QueuedConnection);
}

HLVPServerClient::~HLVPServerClient() {
    // Nothing of this object may run from the socket's last signals.
    if (m_socket) {
        QObject::disconnect(m_socket, nullptr, this, nullptr);
    }
    m_transfers.reset();
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

void HLVPServerClient::stopStreaming() {
    // Screen streams are not served on this platform yet; there is nothing to stop.
}

void HLVPServerClient::disconnect() {
    if (!m_socket || m_state == HLVP::ConnectionState::disconnected || m_closeDeadline != nullptr) {
        return;
    }
    m_closing = true;
    m_frameDeadline->stop();
    m_transfers->abortAll(std::nullopt);
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
        if (!takeFrameToken(std::holds_alternative<FileChunkMessage>(message))) {
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
    }
    if (m_onMessageReceived) {
        m_onMessageReceived(message);
    }
}

} // namespace tellwyn
