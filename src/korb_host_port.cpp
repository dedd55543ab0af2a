#include "src/korb_host_port.h"

namespace Korb {

HostPort splitHostPort(const QString &text)
{
    HostPort result;
    const QString t = text.trimmed();
    int colon = -1;
    if (t.startsWith(QLatin1Char('['))) {
        const int close = t.indexOf(QLatin1Char(']'));
        if (close < 0) {
            result.host = t;
            return result;
        }
        result.host = t.mid(1, close - 1).trimmed();
        if (t.mid(close + 1).startsWith(QLatin1Char(':')))
            colon = close + 1;
    } else {
        if (t.count(QLatin1Char(':')) == 1)
            colon = t.indexOf(QLatin1Char(':'));
        result.host = t.left(colon < 0 ? t.size() : colon).trimmed();
    }
    if (colon >= 0) {
        result.separator = true;
        result.port = t.mid(colon + 1).trimmed();
    }
    return result;
}

bool parsePort(const QString &text, quint16 *port)
{
    bool ok = false;
    const uint value = text.toUInt(&ok);
    if (!ok || value == 0 || value > 65535)
        return false;
    *port = quint16(value);
    return true;
}

} // namespace Korb
