#include "src/korb_rdv_command.h"

#include <QStringList>

namespace {
RdvClientCommand refusal(const char *reply)
{
    RdvClientCommand c;
    c.reply = QString::fromLatin1(reply);
    return c;
}
} // namespace

RdvClientCommand RdvClientCommand::parse(const QString &message)
{
    if (message.isEmpty())
        return refusal("Err: message.isEmpty()");
    if (!message.contains(QLatin1Char(':')))
        return refusal("Err: symbol ':' no found");
    const QStringList parts = message.split(QLatin1Char(':'), Qt::KeepEmptyParts);
    if (parts.size() > 2)
        return refusal("Err: multiple symbol ':' not support");
    RdvClientCommand c;
    c.word = parts.at(0).trimmed();
    if (c.word == QLatin1String("csv") || c.word == QLatin1String("buf")) {
        c.action = Forward;
        return c;
    }
    if (c.word != QLatin1String("ims")) {
        c.reply = QStringLiteral("Err: cmd not recognized");
        return c;
    }
    bool ok = false;
    const uint value = parts.at(1).trimmed().toUInt(&ok, 10);
    // Deliberately only "above 1" on the low 16 bits: ims:65538 means 2.
    const quint16 ms = quint16(value);
    if (!ok || ms <= 1) {
        c.reply = QStringLiteral("Err: ims vals [1...999] ms");
        return c;
    }
    c.action = SetInterval;
    c.intervalMs = ms;
    c.reply = QStringLiteral("%1 %2").arg(message, QStringLiteral("OK"));
    return c;
}

RdvClientCommand RdvClientCommand::denied(const QString &message)
{
    RdvClientCommand c;
    c.reply = QStringLiteral("%1 %2").arg(message, QStringLiteral("DENIED"));
    return c;
}
