#pragma once

#include <QString>
#include <optional>

namespace tellwyn {

// Where an agent listens, as written on the command line: HOST, HOST:PORT, [IPv6]:PORT or a bare
// IPv6 address.
struct AgentAddress {
    QString host;
    quint16 port = 0;

    // "host:port", with brackets around IPv6 hosts; the key of the known-agents file.
    QString display() const;
};

std::optional<AgentAddress> parseAgentAddress(const QString& text, quint16 defaultPort, QString* error);

} // namespace tellwyn
