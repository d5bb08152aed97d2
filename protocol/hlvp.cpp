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

} // namespace HLVP
