#include "hlvp.h"

using namespace Qt::StringLiterals;

namespace HLVP {

QString toString(ConnectionState state) {
    switch (state) {
    case ConnectionState::connecting:
        return u"connecting"_s;
    case ConnectionState::connected:
        return u"connected"_s;
    case ConnectionState::authenticated:
        return u"authenticated"_s;
    case ConnectionState::disconnected:
        return u"disconnected"_s;
    }
    return u"unknown"_s;
}

QString toString(AuthenticationMethod method) {
    switch (method) {
    case AuthenticationMethod::none:
        return u"none"_s;
    case AuthenticationMethod::password:
        return u"password"_s;
    case AuthenticationMethod::challengeResponse:
        return u"challengeResponse"_s;
    case AuthenticationMethod::unknown:
        break;
    }
    return u"unknown"_s;
}

AuthenticationMethod authenticationMethodFromString(const QString& name) {
    if (name == u"none"_s) {
        return AuthenticationMethod::none;
    }
    if (name == u"password"_s) {
        return AuthenticationMethod::password;
    }
    if (name == u"challengeResponse"_s) {
        return AuthenticationMethod::challengeResponse;
    }
    return AuthenticationMethod::unknown;
}

} // namespace HLVP
