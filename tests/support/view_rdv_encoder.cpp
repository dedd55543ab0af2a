#include "support/view_rdv_encoder.h"

#include <QDataStream>

QByteArray ViewRdvEncoder::block(const ViewBlockSpec &fs)
{
    QByteArray out;
    QDataStream s(&out, QIODevice::WriteOnly);
    s.setByteOrder(QDataStream::LittleEndian);
    s.setFloatingPointPrecision(QDataStream::DoublePrecision);
    s << quint16(0) << qint16(5) << qint16(fs.channel ? 3 : 4) << qint16(2) << qint16(fs.channel ? 6 : 5);
    s << fs.frameType << fs.small[0] << fs.small[1] << fs.small[2] << fs.small[3];
    s << fs.sampleCount << fs.word5 << fs.wordA;
    if (!fs.channel)
        s << fs.wordB;
    s << fs.intA << fs.intB << fs.timeMs << fs.rate << fs.counterA << fs.counterB << fs.floatA;
    if (fs.channel)
        s << fs.floatB;
    for (const qint32 v : fs.values) {
        if (fs.channel)
            s << qint16(v);
        else
            s << v;
    }
    const quint16 len = quint16(fs.lengthOverride >= 0 ? fs.lengthOverride : out.size());
    out[0] = char(len & 0xff);
    out[1] = char(len >> 8);
    return out;
}

QByteArray ViewRdvEncoder::channelPacket(const QVector<ViewBlockSpec> &blocks)
{
    QByteArray out;
    for (const ViewBlockSpec &b : blocks)
        out += block(b);
    return out;
}

namespace {
ViewBlockSpec filled(ViewBlockSpec b, int samples, qint32 scale)
{
    b.sampleCount = quint16(samples);
    for (int i = 0; i < samples; ++i)
        b.values << qint32((i % 7 - 3) * scale) << qint32(-(i % 5) * scale + 1);
    return b;
}
} // namespace

ViewBlockSpec ViewRdvEncoder::single(int samples, double timeMs)
{
    ViewBlockSpec b;
    b.frameType = 2;
    b.small[0] = 1;
    b.small[3] = 1;
    b.word5 = -2;
    b.wordA = 44;
    b.wordB = -46;
    b.intA = -100000;
    b.intB = 7;
    b.timeMs = timeMs;
    b.rate = 0.000002;
    b.counterA = 18446744073709551615.0;
    b.counterB = 3;
    b.floatA = 1.5;
    return filled(b, samples, 100000);
}

ViewBlockSpec ViewRdvEncoder::channel(qint8 group, int samples, double timeMs)
{
    ViewBlockSpec b;
    b.channel = true;
    b.frameType = 1;
    b.small[0] = 15;
    b.small[1] = 9;
    b.small[2] = group;
    b.small[3] = -7;
    b.word5 = 5;
    b.wordA = -20;
    b.intA = 40;
    b.intB = -52;
    b.timeMs = timeMs;
    b.rate = 1000.0 / 3;
    b.counterA = 24;
    b.counterB = 32;
    b.floatA = -0.25;
    b.floatB = 48.5;
    return filled(b, samples, 1000);
}
