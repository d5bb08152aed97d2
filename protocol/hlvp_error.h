#pragma once

#include <QString>

namespace tellwyn {

// A failure of the protocol library, as a value. `localizedDescription` is shown to the user;
// `printed` names the case as well, for the log.
class HLVPError {
public:
    enum class Code {
        addressInUse,
        permissionDenied,
        addressUnavailable,
        identityUnavailable,
        listenFailed,
        notConnected,
        sendFailed,
        captureFailed,
    };

    HLVPError(Code code, QString description) : m_code(code), m_description(std::move(description)) {}

    Code code() const { return m_code; }
    QString localizedDescription() const { return m_description; }
    QString printed() const;

private:
    Code m_code;
    QString m_description;
};

} // namespace tellwyn
