#include "support/acq_recording_sink.h"

#include <QStringList>
#include <QtEndian>

namespace AcqTest {

int frameBytes(const char *frame)
{
    const auto *p = reinterpret_cast<const uchar *>(frame);
    const int kind = p[4];
    const int count = qFromLittleEndian<quint16>(p + 17);
    if (kind == 1)
        return 56 + 4 * count;
    if (kind == 2)
        return 56 + 8 * count;
    return 56;
}

namespace {
SeenFrame seen(const void *p)
{
    const char *c = static_cast<const char *>(p);
    return SeenFrame{c, QByteArray(c, frameBytes(c))};
}
} // namespace

void RecordingSink::sendRdv(const RdvFrame *frame)
{
    Handoff h;
    h.single = true;
    h.frame = seen(frame);
    handoffs.append(h);
}

void RecordingSink::sendRdv(const RdvChannelMap &channels)
{
    Handoff h;
    for (auto it = channels.cbegin(); it != channels.cend(); ++it)
        h.map.insert(it.key(), seen(it.value()));
    handoffs.append(h);
}

QString RecordingSink::describe(const char *base) const
{
    QStringList out;
    for (const Handoff &h : handoffs) {
        if (h.single) {
            out << QStringLiteral("F%1").arg(h.frame.where - base);
            continue;
        }
        QStringList entries;
        for (auto it = h.map.cbegin(); it != h.map.cend(); ++it)
            entries << QStringLiteral("%1:%2").arg(int(it.key())).arg(it.value().where - base);
        out << QStringLiteral("M") + entries.join(QLatin1Char(','));
    }
    return out.join(QLatin1Char(' '));
}

} // namespace AcqTest
