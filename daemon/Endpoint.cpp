#include "daemon/Endpoint.h"

#include <algorithm>

using namespace Qt::StringLiterals;

QString Endpoint::text() const { return host + u':' + QString::number(port); }

std::optional<Endpoint> parseEndpoint(const QString &text, quint16 defaultPort)
{
    Endpoint endpoint{text, defaultPort};
    // Only one colon can separate a port: radios speak IPv4, so a text with more is left to
    // fail as a host name.
    if (text.count(u':') == 1) {
        const qsizetype colon = text.indexOf(u':');
        const QString port = text.mid(colon + 1);
        const bool digitsOnly = !port.isEmpty() && port.size() <= 5
                                && std::all_of(port.begin(), port.end(), [](QChar c) { return c >= u'0' && c <= u'9'; });
        const uint number = digitsOnly ? port.toUInt() : 0;
        if (number < 1 || number > 65535)
            return std::nullopt;
        endpoint.host = text.left(colon);
        endpoint.port = quint16(number);
    }
    if (endpoint.host.isEmpty())
        return std::nullopt;
    return endpoint;
}
