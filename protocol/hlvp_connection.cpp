#include "hlvp_connection.h"

#include "hlvp_codec.h"
#include "tls_identity.h"

#include <QSslConfiguration>
#include <QSslSocket>

using namespace Qt::StringLiterals;

namespace tellwyn {

HLVPConnection::HLVPConnection(QObject* parent) : QObject(parent) {
}

HLVPConnection::~HLVPConnection() {
    if (m_socket) {
        m_socket->abort();
    }
}

void HLVPConnection::connectToAgent(const QString& host, quint16 port, const QString& clientName) {
    m_clientName = clientName;
    m_socket = new QSslSocket(this);
    QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
    configuration.setProtocol(QSsl::TlsV1_3OrLater);
    // Agents present self-signed certificates; trust comes from the pinned fingerprint instead.
    configuration.setPeerVerifyMode(QSslSocket::VerifyNone);
    m_socket->setSslConfiguration(configuration);
    m_socket->setReadBufferSize(wire::maxFrameBytes + wire::frameHeaderBytes);

    connect(m_socket, &QSslSocket::encrypted, this, &HLVPConnection::onEncrypted);
    connect(m_socket, &QSslSocket::readyRead, this, &HLVPConnection::readFrames);
    connect(m_socket, &QSslSocket::errorOccurred, this, [this](QAbstractSocket::SocketError error) {
        if (error == QAbstractSocket::RemoteHostClosedError && m_ready) {
            return; // an ordinary end of the connection; `closed` tells it
        }
        fail(m_socket->errorString(), m_ready ? protocolError : connectFailed);
    });
    connect(m_socket, &QSslSocket::disconnected, this, [this] {
        if (!m_closedSignalled) {
            m_closedSignalled = true;
            Q_EMIT closed();
        }
    });
    if (!m_localAddress.isNull()) {
        m_socket->bind(m_localAddress);
    }
    m_socket->connectToHostEncrypted(host, port);
}

void HLVPConnection::onEncrypted() {
    // Small messages go out at once (see the server side).
    m_socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
    m_fingerprint = TlsIdentity::fingerprintOf(m_socket->peerCertificate());
    if (m_socket->sessionProtocol() != QSsl::TlsV1_3) {
        fail(u"the agent did not negotiate TLS 1.3"_s, protocolError);
        return;
    }
    if (m_fingerprintCheck && !m_fingerprintCheck(m_fingerprint)) {
        fail(u"the agent's identity is not trusted"_s, untrustedAgent);
        return;
    }
    send(HandshakeMessage{m_clientName, HLVP::protocolVersion, std::nullopt});
}

void HLVPConnection::send(const HLVPMessage& message) {
    if (m_socket && m_socket->isEncrypted()) {
        m_socket->write(wire::encodeFrame(message));
    }
}

void HLVPConnection::disconnectFromAgent(const QString& reason) {
    if (!m_socket) {
        return;
    }
    if (m_socket->isEncrypted()) {
        send(DisconnectMessage{reason, std::nullopt});
        m_socket->disconnectFromHost();
    } else {
        m_socket->abort();
    }
}

void HLVPConnection::abort() {
    if (m_socket) {
        m_socket->abort();
    }
}

void HLVPConnection::fail(const QString& reason, FailureKind kind) {
    if (m_failed) {
        return;
    }
    m_failed = true;
    Q_EMIT failed(reason, kind);
    if (m_socket) {
        m_socket->abort();
    }
    if (!m_closedSignalled) {
        m_closedSignalled = true;
        Q_EMIT closed();
    }
}

void HLVPConnection::readFrames() {
    while (m_socket && !m_failed) {
        wire::FrameRead read = wire::readFrame(*m_socket, wire::maxFrameBytes);
        if (read.status == wire::FrameRead::Status::incomplete) {
            return;
        }
        if (read.status == wire::FrameRead::Status::error) {
            fail(u"the agent sent a bad frame: "_s + read.error, protocolError);
            return;
        }
        wire::DecodeResult decoded = wire::decodeMessage(read.body);
        if (const auto* error = std::get_if<wire::DecodeError>(&decoded)) {
            fail(u"the agent sent a message this viewer cannot read: "_s + error->reason, protocolError);
            return;
        }
        const HLVPMessage message = std::get<HLVPMessage>(std::move(decoded));
        if (messageTraits(message).direction == Direction::viewerToAgent) {
            fail(u"the agent sent a \"%1\" message, which only viewers send"_s.arg(wireTypeName(message)),
                 protocolError);
            return;
        }
        if (const auto* response = std::get_if<HandshakeResponseMessage>(&message); response && !m_ready) {
            m_ready = true;
            Q_EMIT ready(*response);
        }
        Q_EMIT messageReceived(message);
    }
}

} // namespace tellwyn
