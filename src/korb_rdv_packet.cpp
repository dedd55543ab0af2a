#include "src/korb_rdv_packet.h"

#include <QStringList>

#include <cstring>
#include <iterator>

namespace Rdv {

namespace {

using F = Field;
using S = Source;

// clang-format off
constexpr PacketField SingleFields[] = {
    {F::LengthWord, S::Length}, {F::Tag, S::Fixed, 0, 5}, {F::Tag, S::Fixed, 0, 4}, {F::Tag, S::Fixed, 0, 2},
    {F::Tag, S::Fixed, 0, 5},
    {F::FrameType, S::Byte, offsetof(RdvFrame, frameType)},
    {F::FlagBit1, S::Bit, offsetof(RdvFrame, flags), 1},
    {F::FlagBit2, S::Bit, offsetof(RdvFrame, flags), 2},
    {F::FlagBit3, S::Bit, offsetof(RdvFrame, flags), 3},
    {F::FlagBit0, S::Bit, offsetof(RdvFrame, flags), 0},
    {F::SampleCount, S::Count},
    {F::Word5, S::Word, offsetof(RdvFrame, word5)},
    {F::Word44, S::Word, offsetof(RdvFrame, word44)},
    {F::Word46, S::Word, offsetof(RdvFrame, word46)},
    {F::IntA, S::Int, offsetof(RdvFrame, intA)},
    {F::IntB, S::Int, offsetof(RdvFrame, intB)},
    {F::TimeMs, S::Time}, {F::Rate, S::Rate},
    {F::CounterA, S::Counter, offsetof(RdvFrame, counterA)},
    {F::CounterB, S::Counter, offsetof(RdvFrame, counterB)},
    {F::FloatA, S::Float, offsetof(RdvFrame, floatA)},
};
constexpr PacketField ChannelFields[] = {
    {F::LengthWord, S::Length}, {F::Tag, S::Fixed, 0, 5}, {F::Tag, S::Fixed, 0, 3}, {F::Tag, S::Fixed, 0, 2},
    {F::Tag, S::Fixed, 0, 6},
    {F::FrameType, S::Byte, offsetof(RdvChannelFrame, frameType)},
    {F::NibbleLow, S::LowNibble, offsetof(RdvChannelFrame, nibbles)},
    {F::NibbleHigh, S::HighNibble, offsetof(RdvChannelFrame, nibbles)},
    {F::Group, S::Byte, offsetof(RdvChannelFrame, byte16)},
    {F::Byte7, S::Byte, offsetof(RdvChannelFrame, byte7)},
    {F::SampleCount, S::Count},
    {F::Word5, S::Word, offsetof(RdvChannelFrame, word5)},
    {F::Word20, S::Word, offsetof(RdvChannelFrame, word20)},
    {F::IntA, S::Int, offsetof(RdvChannelFrame, intA)},
    {F::IntB, S::Int, offsetof(RdvChannelFrame, intB)},
    {F::TimeMs, S::Time}, {F::Rate, S::Rate},
    {F::CounterA, S::Counter, offsetof(RdvChannelFrame, counterA)},
    {F::CounterB, S::Counter, offsetof(RdvChannelFrame, counterB)},
    {F::FloatA, S::Float, offsetof(RdvChannelFrame, floatA)},
    {F::FloatB, S::Float, offsetof(RdvChannelFrame, floatB)},
};
// clang-format on

constexpr int widthOf(Source s)
{
    switch (s) {
    case S::Byte:
    case S::Bit:
    case S::LowNibble:
    case S::HighNibble:
        return 1;
    case S::Length:
    case S::Fixed:
    case S::Count:
    case S::Word:
        return 2;
    case S::Int:
        return 4;
    default:
        return 8;
    }
}

template <std::size_t N> constexpr int headerSizeOf(const PacketField (&fields)[N])
{
    int size = 0;
    for (const PacketField &f : fields)
        size += widthOf(f.source);
    return size;
}
static_assert(headerSizeOf(SingleFields) == PacketHeaderSize, "a single-frame header is 71 bytes");
static_assert(headerSizeOf(ChannelFields) == ChannelBlockHeaderSize,
              "a channel sub-block header is 77 bytes");

double readF32(const char *frame, std::size_t at)
{
    const quint32 bits = readLE<quint32>(frame, at);
    float v;
    std::memcpy(&v, &bits, sizeof v);
    return double(v);
}

// The value of a field as the builder takes it from a frame; integers are
// returned in the bits the field's width keeps.
qint64 integerOf(const PacketField &f, const char *frame, int blockSize)
{
    const auto byte = [&] { return quint8(frame[f.at]); };
    switch (f.source) {
    case S::Length:
        return quint16(blockSize);
    case S::Fixed:
        return f.arg;
    case S::Byte:
        return byte();
    case S::Bit:
        return (byte() >> f.arg) & 1;
    case S::LowNibble:
        return byte() & 0x0F;
    case S::HighNibble:
        return byte() >> 4;
    case S::Count:
        return sampleCount(frame);
    case S::Word:
        return readLE<qint16>(frame, f.at);
    default:
        return readLE<qint32>(frame, f.at);
    }
}

double doubleOf(const PacketField &f, const char *frame)
{
    switch (f.source) {
    case S::Time:
        return double(timeMs(frame));
    case S::Rate:
        // Deliberately unguarded: a zero sub-second part gives +infinity.
        return 1000.0 / double(timeSub(frame));
    case S::Counter:
        return double(readLE<quint64>(frame, f.at));
    default:
        return readF32(frame, f.at);
    }
}

// Writes a block's header for `frame` at `out`; returns its end.
char *writeHeader(char *out, const PacketLayout &layout, const char *frame, int blockSize)
{
    for (int i = 0; i < layout.fieldCount; ++i) {
        const PacketField &f = layout.fields[i];
        const int w = widthOf(f.source);
        if (w == 8) {
            const double v = doubleOf(f, frame);
            quint64 bits;
            std::memcpy(&bits, &v, sizeof bits);
            qToLittleEndian<quint64>(bits, out);
        } else if (w == 4) {
            qToLittleEndian<qint32>(qint32(integerOf(f, frame, blockSize)), out);
        } else if (w == 2) {
            qToLittleEndian<quint16>(quint16(integerOf(f, frame, blockSize)), out);
        } else {
            *out = char(integerOf(f, frame, blockSize));
        }
        out += w;
    }
    return out;
}

// Bytes of samples a block carries for `frame`: all of them when the magic,
// the layout's frame type and the count are right, else none.
int payloadBytes(const char *frame, const PacketLayout &layout)
{
    const quint16 count = sampleCount(frame);
    if (magic(frame) != Magic || qint8(kind(frame)) != layout.frameType || count > MaxSamples)
        return 0;
    return int(count) * layout.sampleSize;
}

void appendBlock(QByteArray &out, const PacketLayout &layout, const char *frame, int payload)
{
    char head[ChannelBlockHeaderSize];
    const int blockSize = layout.headerSize + payload;
    const char *const end = writeHeader(head, layout, frame, blockSize);
    Q_ASSERT(end == head + layout.headerSize);
    out.append(head, int(end - head));
    if (payload > 0)
        out.append(frame + HeaderSize, payload);
}

// Reads a block's header fields by the layout.
void readHeader(const char *p, PacketBlock &b)
{
    for (int i = 0; i < b.layout->fieldCount; ++i) {
        const PacketField &f = b.layout->fields[i];
        double v = 0;
        switch (widthOf(f.source)) {
        case 1:
            v = readLE<qint8>(p, 0);
            break;
        case 2:
            v = f.source == S::Length || f.source == S::Count ? double(readLE<quint16>(p, 0))
                                                              : double(readLE<qint16>(p, 0));
            break;
        case 4:
            v = readLE<qint32>(p, 0);
            break;
        default: {
            const quint64 bits = readLE<quint64>(p, 0);
            std::memcpy(&v, &bits, sizeof v);
        }
        }
        if (f.field != F::Tag)
            b.fields[int(f.field)] = v;
        p += widthOf(f.source);
    }
}

// The layout whose fixed words follow the length word at `p`, or null.
const PacketLayout *layoutAt(const char *p)
{
    for (const PacketLayout *layout : {&SingleLayout, &ChannelLayout}) {
        int at = 0;
        bool match = true;
        for (int i = 0; i < layout->fieldCount && match; ++i) {
            const PacketField &f = layout->fields[i];
            match = f.source != S::Fixed || readLE<qint16>(p, std::size_t(at)) == f.arg;
            at += widthOf(f.source);
            if (at > LayoutProbeSize)
                break;
        }
        if (match)
            return layout;
    }
    return nullptr;
}

bool fault(PacketReading &r, int offset, const QString &why)
{
    r.ok = false;
    r.errorOffset = offset;
    r.error = why;
    return false;
}

QString truncatedPayload(const PacketBlock &b, int full, int remaining)
{
    return QStringLiteral("truncated payload: %1 samples need %2 bytes, have %3")
        .arg(b.sampleCount())
        .arg(full - b.headerSize())
        .arg(remaining - b.headerSize());
}

// Whether the block at `pos` (header read) carries its samples, and that its
// size agrees with the bytes there; false with the fault noted.
bool settleSize(PacketReading &r, PacketBlock &b, int remaining)
{
    const int pos = b.offset, header = b.headerSize();
    const int full = header + b.layout->sampleSize * b.sampleCount();
    const bool countFits = b.sampleCount() <= MaxSamples;
    const int lengthWord = int(b[F::LengthWord]);
    if (b.single()) {
        // The length word of a large single frame wraps at 16 bits, so the
        // message size decides and the length word must agree with it.
        if (countFits && remaining == full && full != header) {
            b.hasPayload = true;
        } else if (remaining != header) {
            if (countFits && remaining > header && remaining < full)
                return fault(r, pos + header, truncatedPayload(b, full, remaining));
            const int end = countFits && remaining > full ? full : header;
            return fault(r, pos + end,
                         QStringLiteral("%1 bytes after the end of the frame").arg(remaining - end));
        }
    } else {
        if (lengthWord == full && countFits && full != header)
            b.hasPayload = true;
        else if (lengthWord != header)
            return fault(r, pos,
                         QStringLiteral("length word %1 fits neither a bare header (%2) nor %3 samples (%4)")
                             .arg(lengthWord)
                             .arg(header)
                             .arg(b.sampleCount())
                             .arg(full));
        if (b.hasPayload && remaining < full)
            return fault(r, pos + header, truncatedPayload(b, full, remaining));
    }
    b.size = b.hasPayload ? full : header;
    if (quint16(b.size) != lengthWord)
        return fault(
            r, pos,
            QStringLiteral("length word %1 does not match the block size %2").arg(lengthWord).arg(b.size));
    return true;
}

} // namespace

const PacketLayout SingleLayout = {SingleFields, int(std::size(SingleFields)), PacketHeaderSize,
                                   Kind2SampleSize, 2};
const PacketLayout ChannelLayout = {ChannelFields, int(std::size(ChannelFields)), ChannelBlockHeaderSize,
                                    Kind1SampleSize, 1};

int width(Source source)
{
    return widthOf(source);
}

const char *fieldName(Field field)
{
    static const char *const names[] = {"lengthWord",  "frameType", "flagBit1",   "flagBit2", "flagBit3",
                                        "flagBit0",    "nibbleLow", "nibbleHigh", "group",    "byte7",
                                        "sampleCount", "word5",     "word44",     "word46",   "word20",
                                        "intA",        "intB",      "timeMs",     "rate",     "counterA",
                                        "counterB",    "floatA",    "floatB",     "tag"};
    static_assert(std::size(names) == FieldCount + 1, "a name for every field");
    return names[int(field)];
}

QByteArray buildPacket(const RdvFrame *frame)
{
    if (!frame)
        return QByteArray();
    const char *const f = reinterpret_cast<const char *>(frame);
    const int payload = payloadBytes(f, SingleLayout);
    QByteArray out;
    out.reserve(PacketHeaderSize + payload); // truncated in its length word: a full frame does not fit
    appendBlock(out, SingleLayout, f, payload);
    return out;
}

QByteArray buildPacket(const RdvChannelMap &channels, bool *oversize)
{
    if (oversize)
        *oversize = false;
    int total = 0;
    for (const RdvChannelFrame *f : channels) {
        if (f)
            total += ChannelBlockHeaderSize + payloadBytes(reinterpret_cast<const char *>(f), ChannelLayout);
    }
    QByteArray out;
    out.reserve(total);
    for (const RdvChannelFrame *frame : channels) {
        if (!frame)
            continue;
        const char *const f = reinterpret_cast<const char *>(frame);
        const int payload = payloadBytes(f, ChannelLayout);
        if (ChannelBlockHeaderSize + payload > 0xFFFF && oversize)
            *oversize = true;
        appendBlock(out, ChannelLayout, f, payload);
    }
    Q_ASSERT(out.size() == total);
    return out;
}

int channelFrameBytes(const RdvChannelFrame *f)
{
    return HeaderSize + payloadBytes(reinterpret_cast<const char *>(f), ChannelLayout);
}

PacketReading readPacket(const QByteArray &packet, const std::function<void(const PacketBlock &)> &each)
{
    PacketReading r;
    const int total = packet.size();
    const char *const data = packet.constData();
    if (total == 0) {
        fault(r, 0, QStringLiteral("empty message"));
        return r;
    }
    if (total > MaxPacketSize) {
        fault(r, 0, QStringLiteral("message of %1 bytes is larger than any packet").arg(total));
        return r;
    }
    for (int pos = 0; pos < total;) {
        const int remaining = total - pos;
        if (remaining < LayoutProbeSize) {
            fault(r, pos,
                  QStringLiteral("truncated block: %1 bytes, the layout words need %2")
                      .arg(remaining)
                      .arg(LayoutProbeSize));
            return r;
        }
        PacketBlock b;
        b.offset = pos;
        b.layout = layoutAt(data + pos);
        if (!b.layout) {
            QStringList words;
            for (int i = 1; i <= 4; ++i)
                words << QString::number(readLE<qint16>(data + pos, std::size_t(2 * i)));
            fault(r, pos + 2, QStringLiteral("unknown layout words %1").arg(words.join(QLatin1Char(','))));
            return r;
        }
        // A single frame is a packet of its own; it never follows a sub-block.
        if (b.single() && pos != 0) {
            fault(r, pos, QStringLiteral("single-frame block inside a channel packet"));
            return r;
        }
        if (remaining < b.headerSize()) {
            fault(r, pos,
                  QStringLiteral("truncated header: %1 bytes, need %2").arg(remaining).arg(b.headerSize()));
            return r;
        }
        readHeader(data + pos, b);
        if (!settleSize(r, b, remaining))
            return r;
        ++r.blocks;
        if (each)
            each(b);
        pos += b.size;
    }
    r.ok = true;
    return r;
}

} // namespace Rdv
