#pragma once

#include "agent_address.h"
#include "hlvp_connection.h"

#include <QObject>
#include <QTextStream>

namespace tellwyn {

// How `tellwyn` ends; documented in `tellwyn --help`.
enum ViewerExitCode {
    exitOk = 0,
    exitFailure = 1, // a local problem (files, terminal)
    exitUsage = 2,
    exitConnectFailed = 3,  // the agent could not be reached, or the connection was lost
    exitUntrustedAgent = 4, // the agent's identity differs from the pinned one
    exitProtocolError = 5,  // the agent refused a message or spoke something unreadable
    exitSignInRefused = 6,
};

// One connection of the viewer to an agent: trust on first use of the agent's fingerprint, the
// handshake, goodbye on the way out, and the exit code that tells how it went.
class ViewerSession : public QObject {
    Q_OBJECT
public:
    ViewerSession(AgentAddress address, QString clientName, QString knownAgentsPath, QTextStream& out,
                  QTextStream& err, QObject* parent = nullptr);

    void start();
    void send(const HLVPMessage& message) { m_connection.send(message); }
    // Says goodbye (when connected) and ends with `exitCode` once the connection has closed.
    void finish(int exitCode, const QString& reason = QStringLiteral("Viewer closed"));
    AgentAddress address() const { return m_address; }

Q_SIGNALS:
    void ready(const HandshakeResponseMessage& response);
    void messageReceived(const HLVPMessage& message);
    void finished(int exitCode);

private:
    bool checkFingerprint(const QString& fingerprint);
    void onMessage(const HLVPMessage& message);
    void onClosed();

    AgentAddress m_address;
    QString m_clientName;
    QString m_knownAgentsPath;
    QTextStream& m_out;
    QTextStream& m_err;
    HLVPConnection m_connection;
    std::optional<int> m_exitCode;
    bool m_agentSaidGoodbye = false;
    bool m_finishedSignalled = false;
};

} // namespace tellwyn
