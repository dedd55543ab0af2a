#pragma once

// Device frames and the packets clients should get for them, written apart
// from the relay's code; and in short what a sink or a client saw: "s100", a
// single frame 100 ms after BaseSec; "m1@0,2@100", a map (group@time).

#include "src/korb_rdv_sink.h"

#include <QByteArrayList>
#include <QMetaType>
#include <QStringList>

namespace RdvTest {

constexpr quint32 BaseSec = 1700000000;
constexpr quint32 Magic = 0x12345678;

struct FrameSpec
{
    quint8 kind = 2;
    quint8 byte16 = 0x0A; // the group of a kind-1 frame, the flag bits of a kind-2 frame
    quint16 count = 2;
    quint32 sec = BaseSec;
    quint32 sub = 0; // nanoseconds
    quint32 magic = Magic;
    int samples = -1; // samples written after the header; -1: count
};
// Every other header byte holds a value of its own: a field taken from the wrong place shows.
FrameSpec single(int ms, quint16 count = 2);
FrameSpec channel(qint8 group, int ms, quint16 count = 2);
QByteArray frame(const FrameSpec &s);
// Frames one after another, each followed by `gap` zero bytes (the device
// puts two bytes after every frame).
QByteArray stream(const QList<FrameSpec> &frames, int gap = 2);
// A UDP datagram: length (off by `lengthDelta`), two unused bytes, sequence number, body.
QByteArray datagram(quint32 seq, const QByteArray &body, int lengthDelta = 0);

// A packet block's header fields after the fixed words, named as packet readers name them, for `frame` in a
// channel sub-block or a single-frame packet; and the sample values two per sample the block carries (none
// when the frame's magic, kind or count keep the payload out).
struct PacketFieldValue
{
    const char *name;
    enum Type { I8, I16, U16, I32, F64 } type;
    double value;
};
QList<PacketFieldValue> packetFields(const QByteArray &frame, bool channel);
QList<qint32> sampleValues(const QByteArray &frame, bool channel);

QByteArray singlePacket(const QByteArray &frame);
QByteArray channelPacket(const QByteArrayList &frames);
QString describePacket(const QByteArray &packet);

// Sink double with a settable client count that writes down every hand-off.
struct RecordingSink : KorbRdvSink
{
    int clients = 1;
    QStringList seen;
    QByteArrayList packets; // the channel packets the relay builds from the maps
    QString text() const { return seen.join(' '); }
    int clientCount() const override { return clients; }
    void sendRdv(const RdvFrame *frame) override;
    void sendRdv(const RdvChannelMap &channels) override;
    void sendPacket(const QByteArray &packet) override { seen << 'p' + describePacket(packet); }
};

} // namespace RdvTest

Q_DECLARE_METATYPE(RdvTest::FrameSpec)
