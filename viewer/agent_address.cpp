#include "agent_address.h"

using namespace Qt::StringLiterals;

namespace tellwyn {

QString AgentAddress::display() const {
    const QString shownHost = host.contains(u':') ? u"[%1]"_s.arg(host) : host;
    return u"%1:%2"_s.arg(shownHost).arg(port);
}

std::optional<AgentAddress> parseAgentAddress(const QString& text, quint16 defaultPort, QString* error) {
    AgentAddress address{text, defaultPort};
    QString portText;
    if (text.startsWith(u'[')) {
        const qsizetype close = text.indexOf(u']');
        if (close < 0 || (close + 1 < text.size() && text.at(close + 1) != u':')) {
            *error =
                u"invalid address '%1': write an IPv6 address as [ADDRESS] or [ADDRESS]:PORT"_s.arg(text);
            return std::nullopt;
        }
        address.host = text.mid(1, close - 1);
        if (close + 1 < text.size()) {
            portText = text.mid(close + 2);
        }
    } else if (text.count(u':') == 1) {
        const qsizetype colon = text.indexOf(u':');
        address.host = text.left(colon);
        portText = text.mid(colon + 1);
    }
    if (address.host.isEmpty()) {
        *error = u"invalid address '%1': no host"_s.arg(text);
        return std::nullopt;
    }
    if (!portText.isNull()) {
        bool ok = false;
        const uint port = portText.toUInt(&ok);
        if (!ok || port < 1 || port > 65535) {
            *error = u"invalid port '%1': give a number from 1 to 65535"_s.arg(portText);
            return std::nullopt;
        }
        address.port = quint16(port);
    }
    return address;
}

} // namespace tellwyn
