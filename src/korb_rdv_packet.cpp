#include "src/korb_rdv_packet.h"

#include <cstring>

namespace Rdv {

namespace {

// Appends little-endian values at a running pointer into a buffer whose size
// was computed beforehand, so a packet costs one allocation.
class Writer
{
public:
    explicit Writer(char *p) : m_p(p) {}

    void i8(qint8 v) { *m_p++ = char(v); }
    void i16(qint16 v)
    {
        qToLittleEndian<qint16>(v, m_p);
        m_p += 2;
    }
    void i32(qint32 v)
    {
        qToLittleEndian<qint32>(v, m_p);
        m_p += 4;
    }
    void f64(double v)
    {
        quint64 bits;
        std::memcpy(&bits, &v, sizeof bits);
        qToLittleEndian<quint64>(bits, m_p);
        m_p += 8;
    }
    char *pos() const { return m_p; }

private:
    char *m_p;
};

inline double readF32(const void *f, std::size_t offset)
{
    const quint32 bits = readLE<quint32>(f, offset);
    float v;
    std::memcpy(&v, &bits, sizeof v);
    return double(v);
}

inline double readU64AsDouble(const void *f, std::size_t offset)
{
    return double(readLE<quint64>(f, offset));
}

// The four fixed words after a block's length word.
bool hasTag(const char *block, const qint16 (&tag)[4])
{
    for (int i = 0; i < 4; ++i) {
        if (readLE<qint16>(block, std::size_t(2 + 2 * i)) != tag[i])
            return false;
    }
    return true;
}

inline double rate(quint32 timeSub)
{
    // Deliberately unguarded: a zero sub-second part gives +infinity.
    return 1000.0 / double(timeSub);
}

inline int payloadBytes(const void *f, qint8 wantedType, int sampleSize)
{
    const quint16 count = sampleCount(f);
    if (magic(f) != Magic || qint8(kind(f)) != wantedType || count > MaxSamples)
        return 0;
    return int(count) * sampleSize;
}

int channelBlockSize(const RdvChannelFrame *f)
{
    return ChannelBlockHeaderSize + payloadBytes(f, 1, Kind1SampleSize);
}

// Appends one sub-block: its header is put together on the stack, then the
// header and the raw samples are appended to the reserved packet.
void appendChannelBlock(QByteArray &out, const RdvChannelFrame *f, int blockSize, int payload)
{
    char head[ChannelBlockHeaderSize];
    Writer w(head);
    using F = RdvChannelFrame;
    const quint8 nib = readLE<quint8>(f, offsetof(F, nibbles));
    const quint32 sec = readLE<quint32>(f, offsetof(F, timeSec));
    const quint32 sub = readLE<quint32>(f, offsetof(F, timeSub));
    w.i16(qint16(quint16(blockSize)));
    for (qint16 tag : ChannelBlockTag)
        w.i16(tag);
    w.i8(readLE<qint8>(f, offsetof(F, frameType)));
    w.i8(qint8(nib & 0x0F));
    w.i8(qint8(nib >> 4));
    w.i8(readLE<qint8>(f, offsetof(F, byte16)));
    w.i8(readLE<qint8>(f, offsetof(F, byte7)));
    w.i16(qint16(readLE<quint16>(f, offsetof(F, sampleCount))));
    w.i16(readLE<qint16>(f, offsetof(F, word5)));
    w.i16(readLE<qint16>(f, offsetof(F, word20)));
    w.i32(readLE<qint32>(f, offsetof(F, intA)));
    w.i32(readLE<qint32>(f, offsetof(F, intB)));
    w.f64(double(timeMs(sec, sub)));
    w.f64(rate(sub));
    w.f64(readU64AsDouble(f, offsetof(F, counterA)));
    w.f64(readU64AsDouble(f, offsetof(F, counterB)));
    w.f64(readF32(f, offsetof(F, floatA)));
    w.f64(readF32(f, offsetof(F, floatB)));
    Q_ASSERT(w.pos() == head + ChannelBlockHeaderSize);
    out.append(head, ChannelBlockHeaderSize);
    if (payload > 0)
        out.append(reinterpret_cast<const char *>(f) + HeaderSize, payload);
}

} // namespace

QByteArray buildPacket(const RdvFrame *frame)
{
    if (!frame)
        return QByteArray();
    using F = RdvFrame;
    const int payload = payloadBytes(frame, 2, Kind2SampleSize);
    const int size = PacketHeaderSize + payload;
    char head[PacketHeaderSize];
    Writer w(head);
    const quint8 flags = readLE<quint8>(frame, offsetof(F, flags));
    const quint32 sec = readLE<quint32>(frame, offsetof(F, timeSec));
    const quint32 sub = readLE<quint32>(frame, offsetof(F, timeSub));
    w.i16(qint16(quint16(size))); // truncated to 16 bits: a full frame does not fit
    for (qint16 tag : PacketTag)
        w.i16(tag);
    w.i8(readLE<qint8>(frame, offsetof(F, frameType)));
    w.i8(qint8((flags >> 1) & 1));
    w.i8(qint8((flags >> 2) & 1));
    w.i8(qint8((flags >> 3) & 1));
    w.i8(qint8(flags & 1));
    w.i16(qint16(readLE<quint16>(frame, offsetof(F, sampleCount))));
    w.i16(readLE<qint16>(frame, offsetof(F, word5)));
    w.i16(readLE<qint16>(frame, offsetof(F, word44)));
    w.i16(readLE<qint16>(frame, offsetof(F, word46)));
    w.i32(readLE<qint32>(frame, offsetof(F, intA)));
    w.i32(readLE<qint32>(frame, offsetof(F, intB)));
    w.f64(double(timeMs(sec, sub)));
    w.f64(rate(sub));
    w.f64(readU64AsDouble(frame, offsetof(F, counterA)));
    w.f64(readU64AsDouble(frame, offsetof(F, counterB)));
    w.f64(readF32(frame, offsetof(F, floatA)));
    Q_ASSERT(w.pos() == head + PacketHeaderSize);
    QByteArray out;
    out.reserve(size);
    out.append(head, PacketHeaderSize);
    if (payload > 0)
        out.append(reinterpret_cast<const char *>(frame) + HeaderSize, payload);
    return out;
}

QByteArray buildPacket(const RdvChannelMap &channels, bool *oversize)
{
    if (oversize)
        *oversize = false;
    int total = 0;
    for (const RdvChannelFrame *f : channels) {
        if (f)
            total += channelBlockSize(f);
    }
    QByteArray out;
    out.reserve(total);
    for (auto it = channels.cbegin(); it != channels.cend(); ++it) {
        const RdvChannelFrame *f = it.value();
        if (!f)
            continue;
        const int payload = payloadBytes(f, 1, Kind1SampleSize);
        const int blockSize = ChannelBlockHeaderSize + payload;
        if (blockSize > 0xFFFF && oversize)
            *oversize = true;
        appendChannelBlock(out, f, blockSize, payload);
    }
    Q_ASSERT(out.size() == total);
    return out;
}

int channelFrameBytes(const RdvChannelFrame *f)
{
    return HeaderSize + payloadBytes(f, 1, Kind1SampleSize);
}

bool isPacket(const QByteArray &packet)
{
    const int size = packet.size();
    const char *const data = packet.constData();
    if (size < LayoutProbeSize || size > MaxPacketSize)
        return false;
    if (hasTag(data, PacketTag))
        return size >= PacketHeaderSize;
    // Channel sub-blocks are never longer than their 16-bit length word can
    // say, so the words lead from one to the next.
    for (int pos = 0; pos < size;) {
        const int rest = size - pos;
        if (rest < ChannelBlockHeaderSize || !hasTag(data + pos, ChannelBlockTag))
            return false;
        const int length = readLE<quint16>(data + pos, 0);
        if (length < ChannelBlockHeaderSize || length > rest)
            return false;
        pos += length;
    }
    return true;
}

} // namespace Rdv
