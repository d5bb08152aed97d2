#include "hlvp_error.h"

using namespace Qt::StringLiterals;

namespace tellwyn {

QString HLVPError::printed() const {
    QString name;
    switch (m_code) {
    case Code::addressInUse:
        name = u"addressInUse"_s;
        break;
    case Code::permissionDenied:
        name = u"permissionDenied"_s;
        break;
    case Code::addressUnavailable:
        name = u"addressUnavailable"_s;
        break;
    case Code::identityUnavailable:
        name = u"identityUnavailable"_s;
        break;
    case Code::listenFailed:
        name = u"listenFailed"_s;
        break;
    case Code::notConnected:
        name = u"notConnected"_s;
        break;
    case Code::sendFailed:
        name = u"sendFailed"_s;
        break;
    case Code::captureFailed:
        name = u"captureFailed"_s;
        break;
    }
    return u"HLVPError.%1(\"%2\")"_s.arg(name, m_description);
}

} // namespace tellwyn
