#pragma once

#include <QString>
#include <functional>

namespace HLVP {

// The port the setup screens recommend.
inline constexpr quint16 defaultPort = 5905;
// The DNS-SD service type under which agents are advertised and viewers look for them.
inline constexpr auto serviceType = "_hlvp._tcp";
// Clipboard texts larger than this (in UTF-8) are refused on receipt and never sent.
inline constexpr qsizetype maxClipboardBytes = 1024 * 1024;
// The protocol version this library speaks, and the oldest one it accepts from a viewer.
inline constexpr quint32 protocolVersion = 1;
inline constexpr quint32 minimumProtocolVersion = 1;

enum class ConnectionState {
    connecting,    // TCP accepted, TLS being negotiated
    connected,     // TLS up, waiting for the viewer's handshake or sign-in
    authenticated, // the agent accepted the viewer's sign-in
    disconnected,
};

// How the state is printed in log lines.
QString toString(ConnectionState state);

// `unknown` stands for a method name this library does not know; the message keeps the name.
enum class AuthenticationMethod { none, password, challengeResponse, unknown };

QString toString(AuthenticationMethod method);
AuthenticationMethod authenticationMethodFromString(const QString& name);

// Receives every diagnostic line of the library: message first, category second.
using LogFunction = std::function<void(const QString& message, const QString& category)>;

} // namespace HLVP
