#include "src/korb_rdv_decoder.h"

#include <QtEndian>

#include <algorithm>
#include <cstring>

namespace {

// Sequential little-endian reader over a block whose header size has already
// been checked against the remaining bytes.
class Cursor
{
public:
    Cursor(const uchar *p) : m_p(p) {}
    qint8 i8() { return qint8(*m_p++); }
    qint16 i16() { return take<qint16>(); }
    quint16 u16() { return take<quint16>(); }
    qint32 i32() { return take<qint32>(); }
    double f64()
    {
        const quint64 bits = take<quint64>();
        double d;
        std::memcpy(&d, &bits, sizeof d);
        return d;
    }

private:
    template <typename T> T take()
    {
        const T v = qFromLittleEndian<T>(m_p);
        m_p += sizeof(T);
        return v;
    }
    const uchar *m_p;
};

bool failAt(RdvDecoded &out, int offset, const QString &why)
{
    out.ok = false;
    out.errorOffset = offset;
    out.error = why;
    return false;
}

// Reads the header fields that follow the four fixed words.
void readSingleHeader(Cursor &c, RdvBlock &b)
{
    b.frameType = c.i8();
    b.flagBit1 = c.i8();
    b.flagBit2 = c.i8();
    b.flagBit3 = c.i8();
    b.flagBit0 = c.i8();
    b.sampleCount = c.u16();
    b.word5 = c.i16();
    b.word44 = c.i16();
    b.word46 = c.i16();
    b.intA = c.i32();
    b.intB = c.i32();
    b.timeMs = c.f64();
    b.rate = c.f64();
    b.counterA = c.f64();
    b.counterB = c.f64();
    b.floatA = c.f64();
}

void readChannelHeader(Cursor &c, RdvBlock &b)
{
    b.frameType = c.i8();
    b.nibbleLow = c.i8();
    b.nibbleHigh = c.i8();
    b.group = c.i8();
    b.byte7 = c.i8();
    b.sampleCount = c.u16();
    b.word5 = c.i16();
    b.word20 = c.i16();
    b.intA = c.i32();
    b.intB = c.i32();
    b.timeMs = c.f64();
    b.rate = c.f64();
    b.counterA = c.f64();
    b.counterB = c.f64();
    b.floatA = c.f64();
    b.floatB = c.f64();
}

void readValues(const uchar *p, RdvBlock &b)
{
    const int n = 2 * b.sampleCount;
    b.values.resize(n);
    if (b.layout == RdvBlock::Channel) {
        for (int i = 0; i < n; ++i)
            b.values[i] = qFromLittleEndian<qint16>(p + 2 * i);
    } else {
        for (int i = 0; i < n; ++i)
            b.values[i] = qFromLittleEndian<qint32>(p + 4 * i);
    }
}

} // namespace

RdvDecoded KorbRdvDecoder::decode(const QByteArray &message)
{
    RdvDecoded out;
    const int total = message.size();
    const auto *data = reinterpret_cast<const uchar *>(message.constData());
    if (total == 0) {
        failAt(out, 0, QStringLiteral("empty message"));
        return out;
    }
    if (total > Rdv::MaxPacketSize) {
        failAt(out, 0, QStringLiteral("message of %1 bytes is larger than any packet").arg(total));
        return out;
    }

    int pos = 0;
    while (pos < total) {
        const int remaining = total - pos;
        if (remaining < Rdv::LayoutProbeSize) {
            failAt(out, pos,
                   QStringLiteral("truncated block: %1 bytes, the layout words need %2")
                       .arg(remaining)
                       .arg(Rdv::LayoutProbeSize));
            return out;
        }
        const uchar *p = data + pos;
        const qint16 w[4] = {qFromLittleEndian<qint16>(p + 2), qFromLittleEndian<qint16>(p + 4),
                             qFromLittleEndian<qint16>(p + 6), qFromLittleEndian<qint16>(p + 8)};
        RdvBlock b;
        if (std::equal(w, w + 4, Rdv::PacketTag))
            b.layout = RdvBlock::Single;
        else if (std::equal(w, w + 4, Rdv::ChannelBlockTag))
            b.layout = RdvBlock::Channel;
        else {
            failAt(
                out, pos + 2,
                QStringLiteral("unknown layout words %1,%2,%3,%4").arg(w[0]).arg(w[1]).arg(w[2]).arg(w[3]));
            return out;
        }
        // A single frame is a packet of its own; it never follows a sub-block.
        if (b.layout == RdvBlock::Single && pos != 0) {
            failAt(out, pos, QStringLiteral("single-frame block inside a channel packet"));
            return out;
        }
        const int header = b.headerSize();
        if (remaining < header) {
            failAt(out, pos,
                   QStringLiteral("truncated header: %1 bytes, need %2").arg(remaining).arg(header));
            return out;
        }
        b.offset = pos;
        b.lengthWord = qFromLittleEndian<quint16>(p);
        Cursor c(p + Rdv::LayoutProbeSize);
        if (b.layout == RdvBlock::Single)
            readSingleHeader(c, b);
        else
            readChannelHeader(c, b);

        // The relay drops the payload of a frame it will not trust (bad magic,
        // wrong kind, too many samples) and still sends the header, so a block
        // is either header-only or header plus the whole payload.
        const int full = header + b.sampleSize() * b.sampleCount;
        const bool countFits = b.sampleCount <= Rdv::MaxSamples;
        if (b.layout == RdvBlock::Single) {
            // The length word of a large single frame wraps at 16 bits, so the
            // message size decides and the length word must agree with it.
            if (countFits && remaining == full && full != header)
                b.hasPayload = true;
            else if (remaining != header) {
                if (countFits && remaining > header && remaining < full)
                    failAt(out, pos + header,
                           QStringLiteral("truncated payload: %1 samples need %2 bytes, have %3")
                               .arg(b.sampleCount)
                               .arg(full - header)
                               .arg(remaining - header));
                else {
                    const int end = countFits && remaining > full ? full : header;
                    failAt(out, pos + end,
                           QStringLiteral("%1 bytes after the end of the frame").arg(remaining - end));
                }
                return out;
            }
        } else {
            if (b.lengthWord == header)
                b.hasPayload = false;
            else if (countFits && b.lengthWord == full)
                b.hasPayload = true;
            else {
                failAt(out, pos,
                       QStringLiteral("length word %1 fits neither a bare header (%2) nor %3 samples (%4)")
                           .arg(b.lengthWord)
                           .arg(header)
                           .arg(b.sampleCount)
                           .arg(full));
                return out;
            }
            if (b.hasPayload && remaining < full) {
                failAt(out, pos + header,
                       QStringLiteral("truncated payload: %1 samples need %2 bytes, have %3")
                           .arg(b.sampleCount)
                           .arg(full - header)
                           .arg(remaining - header));
                return out;
            }
        }
        b.size = b.hasPayload ? full : header;
        if (quint16(b.size) != b.lengthWord) {
            failAt(out, pos,
                   QStringLiteral("length word %1 does not match the block size %2")
                       .arg(b.lengthWord)
                       .arg(b.size));
            return out;
        }
        if (b.hasPayload)
            readValues(p + header, b);
        out.blocks.append(b);
        pos += b.size;
    }
    out.ok = true;
    return out;
}
