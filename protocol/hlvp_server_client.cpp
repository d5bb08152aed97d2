#include "hlvp_server_client.h"

#include <QSslSocket>
#include <QTimer>

using namespace Qt::StringLiterals;

namespace tellwyn {

namespace {
constexpr auto closeGracePeriod = std::chrono::seconds(2);
}

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

HLVPServerClient::HLVPServerClient(QSslSocket* socket, QString clientKey, QObject* parent)
    : QObject(parent), m_socket(socket), m_clientKey(std::move(clientKey)),
      m_remoteHostKey(remoteHostKeyFor(socket->peerAddress())) {
    socket->setParent(this);
    connect(socket, &QSslSocket::disconnected, this, &HLVPServerClient::onSocketDisconnected);
    connect(socket, &QSslSocket::readyRead, this, [this] {
        // The message layer reads here; until a viewer speaks the protocol its bytes are dropped.
        m_socket->readAll();
    });
}

HLVPServerClient::~HLVPServerClient() {
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

void HLVPServerClient::setConnectionState(HLVP::ConnectionState state) {
    if (m_state == state) {
        return;
    }
    m_state = state;
    Q_EMIT connectionStateChanged(state);
}

void HLVPServerClient::stopStreaming() {
    // No screen stream runs on this connection yet; nothing to stop.
}

void HLVPServerClient::disconnect() {
    if (!m_socket || m_state == HLVP::ConnectionState::disconnected || m_closeDeadline != nullptr) {
        return;
    }
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
    if (m_closeDeadline != nullptr) {
        m_closeDeadline->stop();
    }
    log(u"connection closed"_s, u"CONNECTION"_s);
    setConnectionState(HLVP::ConnectionState::disconnected);
}

} // namespace tellwyn
