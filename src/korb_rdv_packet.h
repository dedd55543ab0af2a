#pragma once

#include "src/korb_rdv_wire.h"

#include <QByteArray>
#include <QString>

#include <functional>

// The binary Rdv packet that the WebSocket clients receive: a frame's header
// fields re-packed little-endian (the floating-point ones widened to doubles)
// and its samples copied raw. One description of the two layouts below
// drives the builder, the reader and the check of what is a packet; nothing
// here touches a socket, so the same bytes go to every client.
namespace Rdv {

// The header fields of a packet block, by name; each layout carries some.
enum class Field : quint8 {
    LengthWord,
    FrameType,
    FlagBit1,
    FlagBit2,
    FlagBit3,
    FlagBit0,
    NibbleLow,
    NibbleHigh,
    Group,
    Byte7,
    SampleCount,
    Word5,
    Word44,
    Word46,
    Word20,
    IntA,
    IntB,
    TimeMs,
    Rate,
    CounterA,
    CounterB,
    FloatA,
    FloatB,
    Tag, // the fixed words after the length word; not kept by the reader
};
constexpr int FieldCount = int(Field::Tag);
// The name readers of the packet (the viewer page among them) give a field.
const char *fieldName(Field field);

// Where a field's value comes from, and so its width in the packet.
enum class Source : quint8 {
    Length,     // u16: bytes of the block, truncated to 16 bits
    Fixed,      // i16: the constant `arg`
    Byte,       // i8: the frame's byte at `at`
    Bit,        // i8: bit `arg` of the frame's byte at `at`
    LowNibble,  // i8: bits 0-3 of the frame's byte at `at`
    HighNibble, // i8: bits 4-7 of the frame's byte at `at`
    Count,      // u16: the frame's sample count
    Word,       // i16 at `at`
    Int,        // i32 at `at`
    Time,       // f64: the frame time in whole milliseconds
    Rate,       // f64: 1000 / the frame's sub-second part, unguarded (0 gives +infinity)
    Counter,    // f64: the u64 at `at`
    Float,      // f64: the f32 at `at`
};
int width(Source source);

struct PacketField
{
    Field field;
    Source source;
    quint8 at = 0; // offset in the frame
    qint16 arg = 0;
};

struct PacketLayout
{
    const PacketField *fields;
    int fieldCount;
    int headerSize;
    int sampleSize;
    qint8 frameType; // of the frames whose samples the block carries
};
// A single frame's packet: 71 bytes of header, then 8-byte samples.
extern const PacketLayout SingleLayout;
// One channel sub-block: 77 bytes of header, then 4-byte samples.
extern const PacketLayout ChannelLayout;

// Single-frame packet (8-byte samples). The payload is copied only when the
// magic is right, the frame type is 2 and the count is at most MaxSamples;
// otherwise the packet is the bare 71-byte header. The length word holds the
// packet size truncated to 16 bits. Null frame: empty array.
QByteArray buildPacket(const RdvFrame *frame);

// Channel packet: one sub-block per map entry in key order, each with its own
// truncated length word, payload under the same rule with frame type 1 and
// 4-byte samples. `oversize` (if given) tells whether a sub-block was longer
// than its 16-bit length word can say. Null map entries are passed over.
QByteArray buildPacket(const RdvChannelMap &channels, bool *oversize = nullptr);

// The bytes of a frame that its channel sub-block reads: the header, and the
// samples when the rule above lets them in; at most MaxChannelFrameSize.
int channelFrameBytes(const RdvChannelFrame *f);

// One block of a packet as read: its layout, place and header fields.
struct PacketBlock
{
    const PacketLayout *layout = &SingleLayout;
    int offset = 0;          // in the packet
    int size = 0;            // bytes it occupies
    bool hasPayload = false; // else the header alone: the relay did not trust the frame
    double fields[FieldCount] = {};

    double operator[](Field f) const { return fields[int(f)]; }
    bool single() const { return layout == &SingleLayout; }
    int sampleCount() const { return int(fields[int(Field::SampleCount)]); }
    // The samples, when there is a payload, start at offset + headerSize.
    int headerSize() const { return layout->headerSize; }
};

// Reads a packet block by block; each is handed to `each` (if given) once
// checked. The first fault ends the reading with its byte offset and what
// is wrong there. A packet is one single-frame block, or channel
// sub-blocks up to its end; no larger than MaxPacketSize.
struct PacketReading
{
    bool ok = false;
    int blocks = 0;       // read before a fault
    int errorOffset = -1; // of the fault
    QString error;
};
PacketReading readPacket(const QByteArray &packet, const std::function<void(const PacketBlock &)> &each = {});

// Whether bytes are a packet as built above.
inline bool isPacket(const QByteArray &packet)
{
    return readPacket(packet).ok;
}

} // namespace Rdv
