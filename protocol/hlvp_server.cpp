#include "hlvp_server.h"

#include <QSslServer>
#include <QSslSocket>
#include <QTimer>
#include <QUuid>
#include <algorithm>
#include <limits>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

using namespace Qt::StringLiterals;

namespace tellwyn {

// QSslServer that asks its owner before it starts TLS on a new descriptor, so that connections
// over the limit are closed before any work is spent on them, and hands the owner each admitted
// socket at once: Qt announces a socket only once its first TLS bytes arrive, and a peer that
// never sends them must still be counted.
class TlsListener final : public QSslServer {
public:
    TlsListener(std::function<bool(qintptr)> admit, std::function<void(QSslSocket*)> admitted)
        : m_admit(std::move(admit)), m_admitted(std::move(admitted)) {}

protected:
    void incomingConnection(qintptr descriptor) override {
        if (!m_admit(descriptor)) {
            ::close(static_cast<int>(descriptor));
            return;
        }
        QSslServer::incomingConnection(descriptor);
        const auto sockets = findChildren<QSslSocket*>(Qt::FindDirectChildrenOnly);
        for (auto it = sockets.crbegin(); it != sockets.crend(); ++it) {
            if ((*it)->socketDescriptor() == descriptor) {
                m_admitted(*it);
                return;
            }
        }
    }

private:
    std::function<bool(qintptr)> m_admit;
    std::function<void(QSslSocket*)> m_admitted;
};

namespace {

QString peerOf(qintptr descriptor) {
    sockaddr_storage storage{};
    socklen_t length = sizeof storage;
    if (::getpeername(static_cast<int>(descriptor), reinterpret_cast<sockaddr*>(&storage), &length) != 0) {
        return u"an unknown address"_s;
    }
    QHostAddress address(reinterpret_cast<const sockaddr*>(&storage));
    return remoteHostKeyFor(address);
}

// Why a TLS negotiation ended, for the log; Qt leaves some of its errors without a text.
QString describeTlsFailure(QSslSocket* socket, QAbstractSocket::SocketError error,
                           std::chrono::milliseconds timeout) {
    switch (error) {
    case QAbstractSocket::RemoteHostClosedError:
        return u"the peer closed the connection"_s;
    case QAbstractSocket::SocketTimeoutError:
        return u"TLS was not completed within %1 ms"_s.arg(timeout.count());
    default:
        break;
    }
    const QString text = socket->errorString();
    if (text.isEmpty() || text == u"Unknown error"_s) {
        return u"socket error %1"_s.arg(int(error));
    }
    return text;
}

std::shared_ptr<HLVPServerClient> makeClient(QSslSocket* socket, const HLVPServerClient::Settings& settings) {
    const QString key = QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper();
    // Deleted on the event loop: the last owner may let go inside one of the client's own signals.
    return std::shared_ptr<HLVPServerClient>(new HLVPServerClient(socket, key, settings),
                                             [](HLVPServerClient* client) { client->deleteLater(); });
}

} // namespace

HLVPServer::HLVPServer(quint16 port, int maxConnections, Options options, QObject* parent)
    : QObject(parent), m_port(port), m_maxConnections(maxConnections), m_options(std::move(options)) {
}

HLVPServer::~HLVPServer() {
    // Dropped without stop(): connections end with the server object.
    m_onConnectionClosed = nullptr;
    m_onNewConnection = nullptr;
    abortNegotiations();
    for (const auto& client : std::as_const(m_clients)) {
        client->QObject::disconnect(this);
    }
}

void HLVPServer::setLogFunction(HLVP::LogFunction logFunction) {
    m_log = std::move(logFunction);
}

void HLVPServer::log(const QString& message, const QString& category) const {
    if (m_log) {
        m_log(message, category);
    }
}

void HLVPServer::logAbout(const QString& host, const QString& message, const QString& category) const {
    if (!m_isQuietSource || !m_isQuietSource(host)) {
        log(message, category);
    }
}

QString HLVPServer::identityFingerprint() const {
    return m_identity ? m_identity->fingerprint() : QString();
}

QStringList HLVPServer::getConnectedClients() const {
    return m_clients.keys();
}

void HLVPServer::setRunning(bool running) {
    if (m_isRunning != running) {
        m_isRunning = running;
        Q_EMIT isRunningChanged(running);
    }
}

void HLVPServer::start(QObject* context, StartCompletion completion) {
    auto finish = [context, completion = std::move(completion)](std::optional<HLVPError> error) {
        QMetaObject::invokeMethod(
            context, [completion, error] { completion(error); }, Qt::QueuedConnection);
    };
    if (m_isRunning) {
        finish(std::nullopt);
        return;
    }

    if (!m_identity) {
        TlsIdentityLoad load = loadOrCreateTlsIdentity(m_options.identityDirectory, m_options.identityName);
        if (!load.identity) {
            log(load.error, u"ERROR"_s);
            finish(HLVPError(HLVPError::Code::identityUnavailable, load.error));
            return;
        }
        if (load.created) {
            log(u"Created a new TLS identity in %1"_s.arg(m_options.identityDirectory), u"SERVER"_s);
        }
        if (load.permissionsRepaired) {
            log(u"TLS identity files in %1 were readable by others; narrowed to the owner only"_s.arg(
                    m_options.identityDirectory),
                u"WARN"_s);
        }
        m_identity = std::move(load.identity);
    }
    log(u"TLS identity fingerprint (SHA-256): %1"_s.arg(m_identity->fingerprint()), u"SERVER"_s);

    QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
    configuration.setProtocol(QSsl::TlsV1_3OrLater);
    configuration.setLocalCertificate(m_identity->certificate);
    configuration.setPrivateKey(m_identity->privateKey);
    configuration.setPeerVerifyMode(QSslSocket::VerifyNone);

    m_listener =
        std::make_unique<TlsListener>([this](qintptr descriptor) { return admitConnection(descriptor); },
                                      [this](QSslSocket* socket) { beginNegotiation(socket); });
    m_listener->setSslConfiguration(configuration);
    // The server keeps its own TLS deadline so that it can say whose negotiation ran out; Qt's own
    // is only a backstop behind it.
    m_listener->setHandshakeTimeout(static_cast<int>(2 * m_options.tlsHandshakeTimeout.count() + 1000));
    // Qt counts sockets still negotiating TLS as pending and stops accepting at its limit, but
    // resumes only on its own time-out path: connections that fail or close early would shut the
    // door for good. Admission is counted here instead, and accepted sockets are taken at once.
    m_listener->setMaxPendingConnections(std::numeric_limits<int>::max());
    connect(m_listener.get(), &QSslServer::errorOccurred, this,
            [this](QSslSocket* socket, QAbstractSocket::SocketError error) {
                endNegotiation(socket, describeTlsFailure(socket, error, m_options.tlsHandshakeTimeout));
            });
    connect(m_listener.get(), &QSslServer::pendingConnectionAvailable, this,
            &HLVPServer::acceptPendingConnections);

    if (!m_listener->listen(m_options.listenAddress, m_port)) {
        const auto socketError = m_listener->serverError();
        const QString reason = m_listener->errorString();
        m_listener.reset();
        switch (socketError) {
        case QAbstractSocket::AddressInUseError:
            finish(HLVPError(HLVPError::Code::addressInUse,
                             u"Port %1 is already in use by another program."_s.arg(m_port)));
            break;
        case QAbstractSocket::SocketAccessError:
            finish(HLVPError(HLVPError::Code::permissionDenied,
                             u"Permission denied to listen on port %1."_s.arg(m_port)));
            break;
        case QAbstractSocket::SocketAddressNotAvailableError:
            finish(HLVPError(HLVPError::Code::addressUnavailable,
                             u"The address %1 is not available on this machine."_s.arg(
                                 m_options.listenAddress.toString())));
            break;
        default:
            finish(HLVPError(HLVPError::Code::listenFailed,
                             u"Cannot listen on port %1: %2."_s.arg(m_port).arg(reason)));
            break;
        }
        return;
    }
    m_port = m_listener->serverPort();
    log(u"HLVP server listening on %1 port %2 (TLS 1.3, at most %3 connections)"_s
            .arg(m_options.listenAddress.toString())
            .arg(m_port)
            .arg(m_maxConnections),
        u"SERVER"_s);
    // The caller's completion runs before observers of the running state hear of the change.
    finish(std::nullopt);
    setRunning(true);
}

void HLVPServer::abortNegotiations() {
    // Silently: these negotiations are ended by the server itself, not by their peers.
    if (m_listener) {
        m_listener->QObject::disconnect(this);
    }
    const auto negotiating = std::exchange(m_negotiating, {});
    for (const auto& negotiation : negotiating) {
        if (negotiation.socket) {
            QObject::disconnect(negotiation.socket, nullptr, this, nullptr);
            negotiation.socket->abort();
        }
    }
}

void HLVPServer::stop() {
    abortNegotiations();
    if (m_listener) {
        m_listener->close();
        m_listener.reset();
    }
    const auto clients = m_clients;
    for (const auto& client : clients) {
        client->disconnect();
    }
    setRunning(false);
}

int HLVPServer::openConnectionCount() {
    m_negotiating.removeIf([](const Negotiation& negotiation) {
        return negotiation.socket.isNull() ||
               negotiation.socket->state() == QAbstractSocket::UnconnectedState;
    });
    return static_cast<int>(m_negotiating.size() + m_clients.size());
}

int HLVPServer::unauthenticatedCountFrom(const QString& host) {
    openConnectionCount(); // drops the negotiations that have ended
    const auto negotiating =
        std::count_if(m_negotiating.cbegin(), m_negotiating.cend(),
                      [&](const Negotiation& negotiation) { return negotiation.host == host; });
    const auto clients = std::count_if(m_clients.cbegin(), m_clients.cend(), [&](const auto& client) {
        return client->remoteHostKey() == host &&
               client->connectionState() != HLVP::ConnectionState::authenticated &&
               client->connectionState() != HLVP::ConnectionState::disconnected;
    });
    return static_cast<int>(negotiating + clients);
}

bool HLVPServer::admitConnection(qintptr descriptor) {
    if (openConnectionCount() >= m_maxConnections) {
        log(u"Connection limit of %1 reached; refused a connection from %2"_s.arg(m_maxConnections)
                .arg(peerOf(descriptor)),
            u"SECURITY"_s);
        return false;
    }
    const QString host = peerOf(descriptor);
    if (unauthenticatedCountFrom(host) >= m_options.maxUnauthenticatedPerHost) {
        logAbout(host,
                 u"%1 already has %2 connections that have not signed in; refused another"_s.arg(host).arg(
                     m_options.maxUnauthenticatedPerHost),
                 u"SECURITY"_s);
        return false;
    }
    return true;
}

void HLVPServer::beginNegotiation(QSslSocket* socket) {
    m_negotiating.append({socket, remoteHostKeyFor(socket->peerAddress())});
    // Qt drops a peer that closes, or sends something other than TLS, without an error of its own.
    connect(socket, &QAbstractSocket::disconnected, this,
            [this, socket] { endNegotiation(socket, u"the connection closed before TLS completed"_s); });
    QTimer::singleShot(m_options.tlsHandshakeTimeout, socket, [this, socket] {
        if (!socket->isEncrypted()) {
            endNegotiation(
                socket, u"TLS was not completed within %1 ms"_s.arg(m_options.tlsHandshakeTimeout.count()));
            socket->abort();
        }
    });
}

void HLVPServer::endNegotiation(QSslSocket* socket, const QString& reason) {
    const auto found =
        std::find_if(m_negotiating.begin(), m_negotiating.end(),
                     [&](const Negotiation& negotiation) { return negotiation.socket == socket; });
    if (found == m_negotiating.end()) {
        return; // already ended and said so
    }
    logAbout(found->host, u"TLS negotiation with %1 failed: %2"_s.arg(found->host, reason), u"TLS"_s);
    m_negotiating.erase(found);
    if (m_listener) {
        m_listener->resumeAccepting();
    }
}

void HLVPServer::acceptPendingConnections() {
    while (m_listener && m_listener->hasPendingConnections()) {
        auto* socket = qobject_cast<QSslSocket*>(m_listener->nextPendingConnection());
        if (socket == nullptr) {
            continue;
        }
        m_negotiating.removeIf([&](const Negotiation& negotiation) { return negotiation.socket == socket; });
        QObject::disconnect(socket, nullptr, this, nullptr);
        // Answers are small and often followed at once by another message: Nagle's algorithm
        // would hold the second until the viewer's delayed acknowledgement.
        socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
        auto client = makeClient(socket, m_options.client);
        const QString key = client->clientKey();
        client->setLogFunction(m_log);
        m_clients.insert(key, client);
        logAbout(client->remoteHostKey(),
                 u"Accepted %1 connection from %2 as client %3"_s.arg(
                     socket->sessionProtocol() == QSsl::TlsV1_3 ? u"TLS 1.3"_s : u"TLS"_s,
                     client->remoteHostKey(), key),
                 u"SERVER"_s);
        if (m_onNewConnection) {
            m_onNewConnection(client, key);
        }
        // After the owner's own subscription, so that it hears the closed state before the
        // server-level close.
        connect(client.get(), &HLVPServerClient::connectionStateChanged, this,
                [this, key](HLVP::ConnectionState state) { onClientStateChanged(key, state); });
        if (client->connectionState() == HLVP::ConnectionState::disconnected) {
            onClientStateChanged(key, HLVP::ConnectionState::disconnected);
        }
    }
}

void HLVPServer::onClientStateChanged(const QString& key, HLVP::ConnectionState state) {
    if (state != HLVP::ConnectionState::disconnected || !m_clients.contains(key)) {
        return;
    }
    const auto client = m_clients.take(key);
    client->QObject::disconnect(this);
    // Reported from the event loop: the close may happen inside a call of the owner's own, such
    // as its disconnect(), which must not be re-entered.
    QMetaObject::invokeMethod(
        this,
        [this, key] {
            if (m_onConnectionClosed) {
                m_onConnectionClosed(key);
            }
        },
        Qt::QueuedConnection);
}

} // namespace tellwyn
