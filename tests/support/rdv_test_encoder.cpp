#include "support/rdv_test_encoder.h"

#include <QBuffer>
#include <QDataStream>
#include <QtEndian>

#include <cstring>

namespace RdvTest {

namespace {

// Little-endian appends, one byte at a time, independent of the host order.
void put(QByteArray &out, quint64 v, int bytes)
{
    for (int i = 0; i < bytes; ++i)
        out.append(char((v >> (8 * i)) & 0xFF));
}

void putF32(QByteArray &out, float f)
{
    quint32 bits;
    std::memcpy(&bits, &f, 4);
    put(out, bits, 4);
}

QByteArray encodeHeader(const FrameSpec &s)
{
    QByteArray out;
    put(out, s.magic, 4);
    put(out, s.kind, 1);
    put(out, quint16(s.word5), 2);
    put(out, s.byte7, 1);
    put(out, s.timeSec, 4);
    put(out, s.timeSub, 4);
    put(out, s.byte16, 1);
    put(out, s.sampleCount, 2);
    put(out, s.byte19, 1);
    if (s.layout == Layout::Channel || (s.layout == Layout::Auto && s.kind == 1)) {
        const ChannelFields &c = s.channel;
        put(out, quint16(c.word20), 2);
        put(out, c.nibbles, 1);
        put(out, c.byte23, 1);
        put(out, c.counterA, 8);
        put(out, c.counterB, 8);
        put(out, quint32(c.intA), 4);
        putF32(out, c.floatA);
        putF32(out, c.floatB);
        put(out, quint32(c.intB), 4);
    } else {
        const SingleFields &f = s.single;
        put(out, f.counterA, 8);
        put(out, f.counterB, 8);
        put(out, quint32(f.intA), 4);
        putF32(out, f.floatA);
        put(out, quint16(f.word44), 2);
        put(out, quint16(f.word46), 2);
        put(out, f.reserved48, 4);
        put(out, quint32(f.intB), 4);
    }
    Q_ASSERT(out.size() == HeaderSize);
    return out;
}

// Payload bytes the daemon must copy, or none when the header forbids it.
QByteArray expectedPayload(const FrameSpec &s, int wantedKind)
{
    if (s.magic != Magic || s.kind != wantedKind || s.sampleCount > MaxSamples)
        return QByteArray();
    return encodeFrame(s).mid(HeaderSize, s.sampleCount * (wantedKind == 1 ? 4 : 8));
}

// The packet fields both forms share up to the stamp, written by `fields`.
template <typename Fields>
QByteArray packet(const FrameSpec &s, int headerSize, int wantedKind, Fields fields)
{
    const QByteArray payload = expectedPayload(s, wantedKind);
    QByteArray out;
    QBuffer buf(&out);
    buf.open(QIODevice::WriteOnly);
    QDataStream ds(&buf);
    ds.setByteOrder(QDataStream::LittleEndian);
    ds.setFloatingPointPrecision(QDataStream::DoublePrecision);
    ds << quint16(headerSize + payload.size());
    fields(ds);
    Q_ASSERT(out.size() == headerSize);
    return out + payload;
}

QByteArray expectedChannelBlock(const FrameSpec &s)
{
    const ChannelFields &c = s.channel;
    return packet(s, 77, 1, [&](QDataStream &ds) {
        ds << qint16(5) << qint16(3) << qint16(2) << qint16(6);
        ds << qint8(s.kind) << qint8(c.nibbles & 0x0F) << qint8(c.nibbles >> 4) << qint8(s.byte16)
           << qint8(s.byte7);
        ds << qint16(s.sampleCount) << s.word5 << c.word20 << c.intA << c.intB;
        ds << double(frameTimeMs(s.timeSec, s.timeSub)) << 1000.0 / double(s.timeSub);
        ds << double(c.counterA) << double(c.counterB) << double(c.floatA) << double(c.floatB);
    });
}

} // namespace

FrameSpec singleFrame(quint16 sampleCount, quint32 timeSec, quint32 timeSub)
{
    FrameSpec s;
    s.kind = 2;
    s.word5 = 0x1234;
    s.byte7 = 0x77;
    s.timeSec = timeSec;
    s.timeSub = timeSub;
    s.byte16 = 0x0A; // flag bits 1 and 3 set, 0 and 2 clear
    s.sampleCount = sampleCount;
    s.byte19 = 0x19;
    s.single.counterA = 0x0102030405ull;
    s.single.counterB = 0x8000000000000801ull; // above 2^63: unsigned conversion
    s.single.intA = -123456;
    s.single.floatA = 3.25f;
    s.single.word44 = -44;
    s.single.word46 = 4646;
    s.single.reserved48 = 0xDEADBEEF;
    s.single.intB = 987654321;
    s.seed = sampleCount + 7;
    return s;
}

FrameSpec channelFrame(qint8 group, quint16 sampleCount, quint32 timeSec, quint32 timeSub)
{
    FrameSpec s;
    s.kind = 1;
    s.word5 = qint16(-2000 + group);
    s.byte7 = quint8(0x80 | group);
    s.timeSec = timeSec;
    s.timeSub = timeSub;
    s.byte16 = quint8(group);
    s.sampleCount = sampleCount;
    s.byte19 = 0x91;
    s.channel.word20 = qint16(2020 + group);
    s.channel.nibbles = quint8(0xA0 | (group & 0x0F));
    s.channel.byte23 = 0x23;
    s.channel.counterA = 1000000ull + quint64(quint8(group));
    s.channel.counterB = 0xFFFFFFFFFFFFFFFFull;
    s.channel.intA = -40 - group;
    s.channel.floatA = 0.5f + group;
    s.channel.floatB = -1.0e-3f;
    s.channel.intB = 52 + group;
    s.seed = quint32(quint8(group)) * 100u + sampleCount;
    return s;
}

QByteArray encodeFrame(const FrameSpec &s)
{
    QByteArray out = encodeHeader(s);
    if (!s.payload.isEmpty())
        return out + s.payload;
    const int count = s.payloadSamples < 0 ? s.sampleCount : s.payloadSamples;
    QByteArray samples(count * (s.kind == 1 ? 4 : 8), Qt::Uninitialized);
    quint32 x = s.seed * 2654435761u + 12345u;
    for (int i = 0; i < samples.size(); ++i) {
        x = x * 1664525u + 1013904223u;
        samples[i] = char(x >> 24);
    }
    return out + samples;
}

QByteArray encodeStream(const QList<FrameSpec> &frames, int gap, char fill)
{
    QByteArray out;
    for (const FrameSpec &s : frames)
        out += encodeFrame(s) + QByteArray(gap, fill);
    return out;
}

quint64 frameTimeMs(quint32 timeSec, quint32 timeSub)
{
    const quint64 wholeNs = quint64(double(timeSec) * 1e9 + double(timeSub));
    return quint64(double(wholeNs) / 1e6);
}

QByteArray expectedSinglePacket(const FrameSpec &s)
{
    const SingleFields &f = s.single;
    return packet(s, 71, 2, [&](QDataStream &ds) {
        ds << qint16(5) << qint16(4) << qint16(2) << qint16(5);
        ds << qint8(s.kind) << qint8((s.byte16 >> 1) & 1) << qint8((s.byte16 >> 2) & 1)
           << qint8((s.byte16 >> 3) & 1) << qint8(s.byte16 & 1);
        ds << qint16(s.sampleCount) << s.word5 << f.word44 << f.word46 << f.intA << f.intB;
        ds << double(frameTimeMs(s.timeSec, s.timeSub)) << 1000.0 / double(s.timeSub);
        ds << double(f.counterA) << double(f.counterB) << double(f.floatA);
    });
}

QByteArray expectedChannelPacket(const QList<FrameSpec> &frames)
{
    QByteArray out;
    for (const FrameSpec &s : frames)
        out += expectedChannelBlock(s);
    return out;
}

double singlePacketTimeMs(const QByteArray &packet)
{
    return packet.size() < 39 ? -1 : qFromLittleEndian<double>(packet.constData() + 31);
}

} // namespace RdvTest
