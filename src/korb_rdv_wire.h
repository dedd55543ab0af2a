#pragma once

// Wire formats of the measuring device: the frame it sends (56-byte packed
// little-endian header, then 4- or 8-byte samples) and the 8-byte header of
// its UDP datagrams. Fields are read through the accessors below, which take
// a byte pointer and decode little-endian explicitly, so nothing depends on
// the host's byte order or on the alignment of the buffer.

#include <QByteArray>
#include <QMap>
#include <QString>
#include <QtEndian>
#include <QtGlobal>

#include <cstddef>
#include <cstring>

namespace Rdv {

constexpr quint32 Magic = 0x12345678;
constexpr int HeaderSize = 56;
// The device never sends more samples; a larger count means the bytes are no frame.
constexpr int MaxSamples = 13000;
constexpr int MaxFrameSize = HeaderSize + 8 * MaxSamples; // 104056
constexpr int Kind1SampleSize = 4;
constexpr int Kind2SampleSize = 8;
// The largest kind-1 frame, the kind the channel map holds.
constexpr int MaxChannelFrameSize = HeaderSize + Kind1SampleSize * MaxSamples; // 52056
// Unix time of 2000-01-01 00:00:00 UTC.
constexpr qint64 Epoch2000 = 946684800;

// The packets the relay sends to its clients. Fixed part of a single-frame
// packet: 5 x i16, 5 x i8, 4 x i16, 2 x i32, 5 x f64.
constexpr int PacketHeaderSize = 71;
// Fixed part of one channel sub-block: 5 x i16, 5 x i8, 3 x i16, 2 x i32, 6 x f64.
constexpr int ChannelBlockHeaderSize = 77;
// The words after the length that tell the two layouts apart.
constexpr qint16 PacketTag[4] = {5, 4, 2, 5};
constexpr qint16 ChannelBlockTag[4] = {5, 3, 2, 6};
// Length word plus the four fixed words: enough to tell the layouts apart.
constexpr int LayoutProbeSize = 10;
// Largest message a relay sends: 256 channel sub-blocks of 13000 samples
// (about 13.3 MB); a reader takes nothing larger.
constexpr qint64 MaxPacketSize = 16 * 1024 * 1024;

// Topics of an instance on an MQTT broker: korbrdv/<instance>/<leaf>, the
// packets (rdv), the retained state (online, or offline by the last will)
// and the retained health figures (stats).
constexpr const char *MqttTopicRoot = "korbrdv";
constexpr const char *MqttPacketLeaf = "rdv";
constexpr const char *MqttStateLeaf = "state";
constexpr const char *MqttStatsLeaf = "stats";
constexpr const char *MqttStateOnline = "online";
constexpr const char *MqttStateOffline = "offline";
inline QByteArray mqttTopic(const QString &instance, const char *leaf)
{
    return QByteArray(MqttTopicRoot) + '/' + instance.toUtf8() + '/' + leaf;
}

} // namespace Rdv

#pragma pack(push, 1)

// Frame of kind 2 (single frame, 8-byte samples), as the device lays it out.
struct RdvFrame
{
    quint32 magic;
    qint8 frameType;
    qint16 word5;
    quint8 byte7;
    quint32 timeSec;
    quint32 timeSub;
    quint8 flags;
    quint16 sampleCount;
    quint8 byte19;
    quint64 counterA;
    quint64 counterB;
    qint32 intA;
    float floatA;
    qint16 word44;
    qint16 word46;
    quint8 reserved48[4];
    qint32 intB;
};

// Frame of kind 1 (channel frame, 4-byte samples): the same 56 bytes, read
// with the channel layout.
struct RdvChannelFrame
{
    quint32 magic;
    qint8 frameType;
    qint16 word5;
    qint8 byte7;
    quint32 timeSec;
    quint32 timeSub;
    qint8 byte16;
    quint16 sampleCount;
    quint8 byte19;
    qint16 word20;
    quint8 nibbles;
    quint8 byte23;
    quint64 counterA;
    quint64 counterB;
    qint32 intA;
    float floatA;
    float floatB;
    qint32 intB;
};

// Header in front of every UDP datagram of the device.
struct RdvDatagramHeader
{
    quint16 length; // datagram length including this header
    quint16 reserved;
    quint32 sequence; // previous datagram's number + 1
};

#pragma pack(pop)

static_assert(sizeof(RdvFrame) == Rdv::HeaderSize, "RdvFrame header is 56 bytes");
static_assert(offsetof(RdvFrame, magic) == 0, "");
static_assert(offsetof(RdvFrame, frameType) == 4, "");
static_assert(offsetof(RdvFrame, word5) == 5, "");
static_assert(offsetof(RdvFrame, timeSec) == 8, "");
static_assert(offsetof(RdvFrame, timeSub) == 12, "");
static_assert(offsetof(RdvFrame, flags) == 16, "");
static_assert(offsetof(RdvFrame, sampleCount) == 17, "");
static_assert(offsetof(RdvFrame, counterA) == 20, "");
static_assert(offsetof(RdvFrame, counterB) == 28, "");
static_assert(offsetof(RdvFrame, intA) == 36, "");
static_assert(offsetof(RdvFrame, floatA) == 40, "");
static_assert(offsetof(RdvFrame, word44) == 44, "");
static_assert(offsetof(RdvFrame, word46) == 46, "");
static_assert(offsetof(RdvFrame, intB) == 52, "");

static_assert(sizeof(RdvChannelFrame) == Rdv::HeaderSize, "RdvChannelFrame header is 56 bytes");
static_assert(offsetof(RdvChannelFrame, magic) == 0, "");
static_assert(offsetof(RdvChannelFrame, frameType) == 4, "");
static_assert(offsetof(RdvChannelFrame, word5) == 5, "");
static_assert(offsetof(RdvChannelFrame, byte7) == 7, "");
static_assert(offsetof(RdvChannelFrame, timeSec) == 8, "");
static_assert(offsetof(RdvChannelFrame, timeSub) == 12, "");
static_assert(offsetof(RdvChannelFrame, byte16) == 16, "");
static_assert(offsetof(RdvChannelFrame, sampleCount) == 17, "");
static_assert(offsetof(RdvChannelFrame, word20) == 20, "");
static_assert(offsetof(RdvChannelFrame, nibbles) == 22, "");
static_assert(offsetof(RdvChannelFrame, counterA) == 24, "");
static_assert(offsetof(RdvChannelFrame, counterB) == 32, "");
static_assert(offsetof(RdvChannelFrame, intA) == 40, "");
static_assert(offsetof(RdvChannelFrame, floatA) == 44, "");
static_assert(offsetof(RdvChannelFrame, floatB) == 48, "");
static_assert(offsetof(RdvChannelFrame, intB) == 52, "");

static_assert(sizeof(RdvDatagramHeader) == 8, "datagram header is 8 bytes");
static_assert(offsetof(RdvDatagramHeader, sequence) == 4, "");

// Latest kind-1 frame of every channel group, keyed by the signed group byte.
using RdvChannelMap = QMap<qint8, RdvChannelFrame *>;

namespace Rdv {

// Explicit little-endian reads at a byte offset of a frame or datagram.
template <typename T> inline T readLE(const void *base, std::size_t offset)
{
    return qFromLittleEndian<T>(static_cast<const uchar *>(base) + offset);
}
inline quint32 magic(const void *f)
{
    return readLE<quint32>(f, offsetof(RdvFrame, magic));
}
inline quint8 kind(const void *f)
{
    return static_cast<const uchar *>(f)[offsetof(RdvFrame, frameType)];
}
inline quint32 timeSec(const void *f)
{
    return readLE<quint32>(f, offsetof(RdvFrame, timeSec));
}
inline quint32 timeSub(const void *f)
{
    return readLE<quint32>(f, offsetof(RdvFrame, timeSub));
}
inline qint8 group(const void *f)
{
    return qint8(static_cast<const uchar *>(f)[offsetof(RdvFrame, flags)]);
}
inline quint16 sampleCount(const void *f)
{
    return readLE<quint16>(f, offsetof(RdvFrame, sampleCount));
}

// A valid header: non-null, the magic, kind 1 or 2, at most MaxSamples samples.
// Nothing else (no checksum, no length field) is tested.
inline bool headerValid(const void *f)
{
    return f && magic(f) == Magic && quint8(kind(f) - 1) <= 1 && sampleCount(f) <= MaxSamples;
}

// 56 + 4 x count (kind 1) or 56 + 8 x count (kind 2); 0 for no valid header.
inline int frameLength(const void *f)
{
    if (!headerValid(f))
        return 0;
    return HeaderSize + sampleCount(f) * (kind(f) == 1 ? Kind1SampleSize : Kind2SampleSize);
}

// Frame time in whole milliseconds: both steps truncate, in double precision.
// The same value paces the sources and stamps the client packets.
inline quint64 timeMs(quint32 sec, quint32 sub)
{
    const quint64 ns = quint64(double(sec) * 1000000000.0 + double(sub));
    return quint64(double(ns) / 1000000.0);
}
inline quint64 timeMs(const void *f)
{
    return timeMs(timeSec(f), timeSub(f));
}

// Seconds since 2000-01-01 (kept by the sources, used in dump file names).
inline qint64 secondsSince2000(const void *f)
{
    return qint64(timeSec(f)) - Epoch2000;
}

// A WebSocket binary message as the relay sends it (RFC 6455 server frame:
// FIN set, opcode 2, not masked, 7-, 16- or 64-bit payload length), built once
// per packet so that every client is sent the same bytes.
constexpr uchar WsFinBinary = 0x82;
constexpr int WsMaxHeaderSize = 10;
inline QByteArray wsBinaryFrame(const QByteArray &payload)
{
    const quint64 size = quint64(payload.size());
    uchar head[WsMaxHeaderSize] = {WsFinBinary};
    int headSize = 2;
    if (size < 126) {
        head[1] = uchar(size);
    } else if (size <= 0xFFFF) {
        head[1] = 126;
        qToBigEndian<quint16>(quint16(size), head + 2);
        headSize = 4;
    } else {
        head[1] = 127;
        qToBigEndian<quint64>(size, head + 2);
        headSize = WsMaxHeaderSize;
    }
    QByteArray frame(headSize + payload.size(), Qt::Uninitialized);
    std::memcpy(frame.data(), head, size_t(headSize));
    std::memcpy(frame.data() + headSize, payload.constData(), size_t(payload.size()));
    return frame;
}

} // namespace Rdv
