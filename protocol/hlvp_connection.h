#pragma once

#include "hlvp.h"
#include "hlvp_error.h"
#include "hlvp_messages.h"

#include <QHostAddress>
#include <QObject>
#include <QPointer>
#include <QString>
#include <functional>

class QSslSocket;

namespace tellwyn {

// A viewer's connection to an agent: TLS 1.3, the agent's certificate checked by its pinned
// fingerprint before any message is sent, then the handshake. Lives on one thread; signals are
// emitted there.
class HLVPConnection : public QObject {
    Q_OBJECT
public:
    // Decides whether to trust the agent presenting this SHA-256 fingerprint.
    using FingerprintCheck = std::function<bool(const QString& fingerprint)>;

    explicit HLVPConnection(QObject* parent = nullptr);
    ~HLVPConnection() override;

    void setFingerprintCheck(FingerprintCheck check) { m_fingerprintCheck = std::move(check); }
    // The local address to connect from, on a machine with several; none: the system's choice.
    void setLocalAddress(const QHostAddress& address) { m_localAddress = address; }

    // Connects and, once the agent is trusted, sends the handshake with `clientName`.
    void connectToAgent(const QString& host, quint16 port, const QString& clientName);
    void send(const HLVPMessage& message);
    // Says goodbye with `reason` and closes once the message is out.
    void disconnectFromAgent(const QString& reason);
    void abort();

    QString agentFingerprint() const { return m_fingerprint; }
    bool isReady() const { return m_ready; }

Q_SIGNALS:
    // The agent answered the handshake.
    void ready(const HandshakeResponseMessage& response);
    void messageReceived(const HLVPMessage& message);
    // The connection could not be made or was refused; `closed` follows.
    void failed(const QString& reason, int kind);
    void closed();

public:
    // Values of `failed`'s kind.
    enum FailureKind { connectFailed = 1, untrustedAgent = 2, protocolError = 3 };

private:
    void onEncrypted();
    void readFrames();
    void fail(const QString& reason, FailureKind kind);

    QPointer<QSslSocket> m_socket;
    FingerprintCheck m_fingerprintCheck;
    QHostAddress m_localAddress;
    QString m_clientName;
    QString m_fingerprint;
    bool m_ready = false;
    bool m_failed = false;
    bool m_closedSignalled = false;
};

} // namespace tellwyn
