#pragma once

#include "hlvp.h"
#include "hlvp_error.h"

#include <QHostAddress>
#include <QObject>
#include <QPointer>

class QSslSocket;
class QTimer;

namespace tellwyn {

// One viewer connection on the agent's side. Created by HLVPServer once TLS is up; lives on the
// main thread. Its key is unique per connection; `remoteHostKey` names the remote host, so two
// connections from one host share it.
class HLVPServerClient : public QObject {
    Q_OBJECT
public:
    HLVPServerClient(QSslSocket* socket, QString clientKey, QObject* parent = nullptr);
    ~HLVPServerClient() override;

    QString clientKey() const { return m_clientKey; }
    QString remoteHostKey() const { return m_remoteHostKey; }
    HLVP::ConnectionState connectionState() const { return m_state; }
    bool isHandshakeReceived() const { return m_handshakeReceived; }

    void setLogFunction(HLVP::LogFunction logFunction);

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

    QPointer<QSslSocket> m_socket;
    QString m_clientKey;
    QString m_remoteHostKey;
    HLVP::ConnectionState m_state = HLVP::ConnectionState::connected;
    bool m_handshakeReceived = false;
    HLVP::LogFunction m_log;
    QTimer* m_closeDeadline = nullptr;
};

// Text naming a remote host: its address, with IPv4-mapped IPv6 addresses written as IPv4.
QString remoteHostKeyFor(const QHostAddress& address);

} // namespace tellwyn
