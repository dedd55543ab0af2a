#pragma once

// Device frames byte by byte and the Rdv packets clients should get for them,
// written apart from the daemon's code so expected bytes never come from it.

#include <QByteArray>
#include <QList>
#include <QtGlobal>

namespace RdvTest {

constexpr quint32 Magic = 0x12345678;
constexpr int HeaderSize = 56;
constexpr int MaxSamples = 13000;

// Which of the two header layouts fills bytes 20..55.
enum class Layout { Auto, Single, Channel }; // Auto: Channel for kind 1, else Single

// Fields of bytes 20..55 as a kind-2 (single) frame lays them out.
struct SingleFields
{
    quint64 counterA = 0; // offset 20
    quint64 counterB = 0; // 28
    qint32 intA = 0;      // 36
    float floatA = 0;     // 40
    qint16 word44 = 0;    // 44
    qint16 word46 = 0;    // 46
    quint32 reserved48 = 0;
    qint32 intB = 0; // 52
};

// Fields of bytes 20..55 as a kind-1 (channel) frame lays them out.
struct ChannelFields
{
    qint16 word20 = 0;    // offset 20
    quint8 nibbles = 0;   // 22
    quint8 byte23 = 0;    // 23
    quint64 counterA = 0; // 24
    quint64 counterB = 0; // 32
    qint32 intA = 0;      // 40
    float floatA = 0;     // 44
    float floatB = 0;     // 48
    qint32 intB = 0;      // 52
};

struct FrameSpec
{
    quint32 magic = Magic;   // offset 0
    quint8 kind = 2;         // 4: 1 channel frame (4-byte samples), 2 single frame (8-byte samples)
    qint16 word5 = 0;        // 5
    quint8 byte7 = 0;        // 7
    quint32 timeSec = 0;     // 8
    quint32 timeSub = 0;     // 12 (nanoseconds)
    quint8 byte16 = 0;       // 16: the group of a kind-1 frame, the flag bits of a kind-2 frame
    quint16 sampleCount = 0; // 17
    quint8 byte19 = 0;       // 19
    Layout layout = Layout::Auto;
    SingleFields single;
    ChannelFields channel;
    // Samples actually written after the header; -1 means sampleCount of them.
    int payloadSamples = -1;
    // When not empty, written verbatim as the payload instead of generated samples.
    QByteArray payload;
    // Seed of the generated sample bytes.
    quint32 seed = 1;
};

// A kind-2 frame with every header field set to a distinct non-zero value,
// so that a field taken from the wrong place shows up.
FrameSpec singleFrame(quint16 sampleCount, quint32 timeSec = 1700000000, quint32 timeSub = 250000000);
// A kind-1 frame of the given group, fields likewise distinct.
FrameSpec channelFrame(qint8 group, quint16 sampleCount, quint32 timeSec = 1700000000,
                       quint32 timeSub = 250000000);

// Header followed by the payload.
QByteArray encodeFrame(const FrameSpec &fs);
// Frames one after another, each followed by `gap` bytes of `fill` (the device
// puts two bytes after every frame).
QByteArray encodeStream(const QList<FrameSpec> &frames, int gap = 2, char fill = '\0');

// Frame time in whole milliseconds (both steps truncate).
quint64 frameTimeMs(quint32 timeSec, quint32 timeSub);

// Expected packet for a single frame: 71-byte header and, when magic, kind 2
// and count allow, sampleCount x 8 payload bytes.
QByteArray expectedSinglePacket(const FrameSpec &fs);
// Time stamp field of a single-frame packet: the f64 after the 31 bytes of
// words, bytes and integers before it.
double singlePacketTimeMs(const QByteArray &packet);
// One sub-block per frame (77-byte header, payload when magic, kind 1 and
// count allow), in the order given: callers list groups in ascending order.
QByteArray expectedChannelPacket(const QList<FrameSpec> &frames);

} // namespace RdvTest
