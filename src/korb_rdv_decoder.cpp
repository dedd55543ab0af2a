#include "src/korb_rdv_decoder.h"

#include <QtEndian>

namespace {

QVector<qint32> valuesOf(const char *p, const Rdv::PacketBlock &b)
{
    const int n = b.hasPayload ? 2 * b.sampleCount() : 0;
    QVector<qint32> values(n);
    const auto *u = reinterpret_cast<const uchar *>(p);
    for (int i = 0; i < n; ++i)
        values[i] = b.single() ? qFromLittleEndian<qint32>(u + 4 * i) : qFromLittleEndian<qint16>(u + 2 * i);
    return values;
}

} // namespace

RdvDecoded KorbRdvDecoder::decode(const QByteArray &message)
{
    RdvDecoded out;
    const Rdv::PacketReading r = Rdv::readPacket(message, [&](const Rdv::PacketBlock &b) {
        RdvBlock block;
        static_cast<Rdv::PacketBlock &>(block) = b;
        block.values = valuesOf(message.constData() + b.offset + b.headerSize(), b);
        out.blocks.append(block);
    });
    out.ok = r.ok;
    out.errorOffset = r.errorOffset;
    out.error = r.error;
    return out;
}
