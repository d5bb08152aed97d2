#include "viewer_session.h"

#include "known_agents.h"
#include "message_text.h"

#include <QTimer>

using namespace Qt::StringLiterals;

namespace tellwyn {

namespace {
constexpr auto goodbyeGracePeriod = std::chrono::seconds(3);
}

ViewerSession::ViewerSession(AgentAddress address, QString clientName, QString knownAgentsPath,
                             QTextStream& out, QTextStream& err, QObject* parent)
    : QObject(parent), m_address(std::move(address)), m_clientName(std::move(clientName)),
      m_knownAgentsPath(std::move(knownAgentsPath)), m_out(out), m_err(err) {
    m_connection.setFingerprintCheck(
        [this](const QString& fingerprint) { return checkFingerprint(fingerprint); });
    connect(&m_connection, &HLVPConnection::ready, this, &ViewerSession::ready);
    connect(&m_connection, &HLVPConnection::messageReceived, this, &ViewerSession::onMessage);
    connect(&m_connection, &HLVPConnection::failed, this, [this](const QString& reason, int kind) {
        if (kind == HLVPConnection::untrustedAgent) {
            m_exitCode = m_exitCode.value_or(exitUntrustedAgent);
            return; // the warning has been printed already
        }
        if (m_exitCode) {
            return; // closing on purpose
        }
        if (kind == HLVPConnection::connectFailed) {
            m_err << u"tellwyn: cannot connect to %1: %2"_s.arg(m_address.display(), agentText(reason))
                  << Qt::endl;
            m_exitCode = exitConnectFailed;
        } else {
            m_err << u"tellwyn: %1: %2"_s.arg(m_address.display(), agentText(reason)) << Qt::endl;
            m_exitCode = exitProtocolError;
        }
    });
    connect(&m_connection, &HLVPConnection::closed, this, &ViewerSession::onClosed);
}

void ViewerSession::start() {
    m_connection.connectToAgent(m_address.host, m_address.port, m_clientName);
}

bool ViewerSession::checkFingerprint(const QString& fingerprint) {
    KnownAgents known(m_knownAgentsPath);
    QString error;
    const auto entry = known.find(m_address.display(), &error);
    if (!error.isEmpty()) {
        m_err << u"tellwyn: "_s << error << Qt::endl;
        m_exitCode = exitFailure;
        return false;
    }
    if (!entry) {
        m_err << u"The agent at %1 is not known yet. Its identity fingerprint (SHA-256) is\n  %2\n"_s.arg(
            m_address.display(), fingerprint);
        if (known.add(m_address.display(), fingerprint, &error)) {
            m_err << u"Stored in %1; from now on this agent must present the same identity."_s.arg(
                         known.path())
                  << Qt::endl;
        } else {
            m_err << u"tellwyn: warning: the fingerprint was not stored: %1"_s.arg(error) << Qt::endl;
        }
        return true;
    }
    if (entry->fingerprint == fingerprint) {
        return true;
    }
    m_err << u"@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@\n"
             u"@     WARNING: THE AGENT'S IDENTITY HAS CHANGED!          @\n"
             u"@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@\n"
             u"Someone may be intercepting this connection, or the agent's identity was made anew.\n"_s
          << u"The agent at %1 presents the fingerprint\n  %2\nbut %3 (line %4) pins\n  %5\n"_s
                 .arg(m_address.display(), fingerprint, known.path())
                 .arg(entry->line)
                 .arg(entry->fingerprint)
          << u"Nothing was sent. If the change is expected, remove line %1 of %2 and connect again."_s
                 .arg(entry->line)
                 .arg(known.path())
          << Qt::endl;
    m_exitCode = exitUntrustedAgent;
    return false;
}

void ViewerSession::onMessage(const HLVPMessage& message) {
    if (const auto* goodbye = std::get_if<DisconnectMessage>(&message)) {
        m_agentSaidGoodbye = true;
        m_err << u"The agent ended the session: %1"_s.arg(agentText(goodbye->reason)) << Qt::endl;
    }
    Q_EMIT messageReceived(message);
}

void ViewerSession::finish(int exitCode, const QString& reason) {
    if (m_exitCode) {
        return;
    }
    m_exitCode = exitCode;
    m_connection.disconnectFromAgent(reason);
    QTimer::singleShot(goodbyeGracePeriod, this, [this] {
        m_connection.abort();
        onClosed();
    });
}

void ViewerSession::onClosed() {
    if (m_finishedSignalled) {
        return;
    }
    m_finishedSignalled = true;
    if (!m_exitCode) {
        if (m_agentSaidGoodbye) {
            m_exitCode = exitOk;
        } else {
            m_err << u"tellwyn: the agent at %1 closed the connection"_s.arg(m_address.display()) << Qt::endl;
            m_exitCode = exitConnectFailed;
        }
    }
    Q_EMIT finished(*m_exitCode);
}

} // namespace tellwyn
