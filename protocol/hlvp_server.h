#pragma once

#include "hlvp.h"
#include "hlvp_error.h"
#include "hlvp_server_client.h"
#include "tls_identity.h"

#include <QHostAddress>
#include <QList>
#include <QMap>
#include <QObject>
#include <QPointer>
#include <memory>
#include <optional>

class QSslSocket;

namespace tellwyn {

class TlsListener;

// The listening HLVP server: TLS 1.3 only, at most `maxConnections` open connections counting
// those still negotiating TLS, and at most `maxUnauthenticatedPerHost` of them from one address
// that are not signed in. The server does its own admission: Qt's pending-connection limit is
// never what stops it accepting. Lives on the main thread; callbacks are made there.
class HLVPServer : public QObject {
    Q_OBJECT
public:
    struct Options {
        QString identityDirectory; // where the TLS identity is kept
        QHostAddress listenAddress = QHostAddress::Any;
        QString identityName = QStringLiteral("TellwynAgent");
        std::chrono::milliseconds tlsHandshakeTimeout{10000};
        // Connections from one address still negotiating TLS or not yet signed in; more are closed
        // before TLS starts, so that one host cannot take every slot.
        int maxUnauthenticatedPerHost = 16;
        HLVPServerClient::Settings client; // name, version and limits of each connection
    };

    using NewConnectionHandler = std::function<void(std::shared_ptr<HLVPServerClient>, const QString&)>;
    using ConnectionClosedHandler = std::function<void(const QString&)>;
    using StartCompletion = std::function<void(std::optional<HLVPError>)>;

    HLVPServer(quint16 port, int maxConnections, Options options, QObject* parent = nullptr);
    ~HLVPServer() override;

    void setLogFunction(HLVP::LogFunction logFunction);
    // Lines about a source's connections are left out while this says it is quiet (its refusals
    // are being summarised by the owner).
    void setQuietSource(std::function<bool(const QString& host)> isQuiet) {
        m_isQuietSource = std::move(isQuiet);
    }
    void setOnNewConnection(NewConnectionHandler handler) { m_onNewConnection = std::move(handler); }
    void setOnConnectionClosed(ConnectionClosedHandler handler) { m_onConnectionClosed = std::move(handler); }

    // Loads or makes the TLS identity and starts listening. Completes later on the event loop,
    // with an error when listening is impossible. Starting a running server completes at once.
    void start(QObject* context, StartCompletion completion);
    void stop();

    bool isRunning() const { return m_isRunning; }
    QStringList getConnectedClients() const;
    quint16 port() const { return m_port; }
    int maxConnections() const { return m_maxConnections; }
    // Empty until the identity has been loaded by start().
    QString identityFingerprint() const;

Q_SIGNALS:
    // Emitted on every change of the running state, never for the initial value.
    void isRunningChanged(bool isRunning);

private:
    void log(const QString& message, const QString& category) const;
    void logAbout(const QString& host, const QString& message, const QString& category) const;
    void setRunning(bool running);
    bool admitConnection(qintptr descriptor);
    void beginNegotiation(QSslSocket* socket);
    void abortNegotiations();
    void endNegotiation(QSslSocket* socket, const QString& reason);
    void acceptPendingConnections();
    void onClientStateChanged(const QString& key, HLVP::ConnectionState state);
    int openConnectionCount();
    int unauthenticatedCountFrom(const QString& host);

    // A connection still negotiating TLS, with its address taken while it was known.
    struct Negotiation {
        QPointer<QSslSocket> socket;
        QString host;
    };

    quint16 m_port;
    int m_maxConnections;
    Options m_options;
    HLVP::LogFunction m_log;
    std::function<bool(const QString& host)> m_isQuietSource;
    NewConnectionHandler m_onNewConnection;
    ConnectionClosedHandler m_onConnectionClosed;
    std::unique_ptr<TlsListener> m_listener;
    std::optional<TlsIdentity> m_identity;
    QList<Negotiation> m_negotiating;
    QMap<QString, std::shared_ptr<HLVPServerClient>> m_clients;
    bool m_isRunning = false;
};

} // namespace tellwyn
