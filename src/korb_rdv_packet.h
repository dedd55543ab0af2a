#pragma once

#include "src/korb_rdv_wire.h"

#include <QByteArray>

// The binary Rdv packet that the WebSocket clients receive: a frame's header
// fields re-packed little-endian (the floating-point ones widened to doubles)
// and its samples copied raw. Building is plain code over the frame bytes;
// nothing here touches a socket, so the same bytes go to every client.
namespace Rdv {

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

// Whether bytes have the layout of a packet as built above: a single-frame
// packet's header, or channel sub-blocks whose length words lead from one to
// the next up to the end; not larger than MaxPacketSize.
bool isPacket(const QByteArray &packet);

} // namespace Rdv
