#pragma once

#include "src/korb_rdv_wire.h"

#include <QByteArray>

// The binary Rdv packet that the WebSocket clients receive: a frame's header
// fields re-packed little-endian (the floating-point ones widened to doubles)
// and its samples copied raw. Building is plain code over the frame bytes;
// nothing here touches a socket, so the same bytes go to every client.
namespace Rdv {

// Fixed part of a single-frame packet: 5 x i16, 5 x i8, 4 x i16, 2 x i32, 5 x f64.
constexpr int PacketHeaderSize = 71;
// Fixed part of one channel sub-block: 5 x i16, 5 x i8, 3 x i16, 2 x i32, 6 x f64.
constexpr int ChannelBlockHeaderSize = 77;

// The words after the length that tell the two layouts apart.
constexpr qint16 PacketTag[4] = {5, 4, 2, 5};
constexpr qint16 ChannelBlockTag[4] = {5, 3, 2, 6};

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

// Time stamp field: whole milliseconds of timeSec.timeSub (both truncations).
double packetTimeMs(quint32 timeSec, quint32 timeSub);

} // namespace Rdv
