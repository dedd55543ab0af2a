#pragma once

#include "src/korb_rdv_wire.h"

// Where the data sources hand their frames, or packets built elsewhere:
// the WebSocket server in the daemon, a recording fake in the tests. Calls
// are synchronous and by pointer; the frames stay owned by the caller.
class KorbRdvSink
{
public:
    virtual ~KorbRdvSink() = default;
    virtual int clientCount() const = 0;
    // Whoever takes the packets, the clients and anything beside them.
    virtual int consumerCount() const { return clientCount(); }
    virtual void sendRdv(const RdvFrame *frame) = 0;
    virtual void sendRdv(const RdvChannelMap &channels) = 0;
    // A packet another relay built (an edge relay's source), handed on unchanged.
    virtual void sendPacket(const QByteArray &packet) = 0;
    // A source brackets each batch it reads from its device's queue. Packets
    // made inside leave when the batch ends: all, in order, when the source
    // has caught up; only the newest when more is still queued, so that a
    // relay that has fallen behind spends its time reading, not sending data
    // that is already old.
    virtual void holdPackets() {}
    virtual void releasePackets(bool newestOnly) { Q_UNUSED(newestOnly) }
    // A source has just read bytes (a datagram, a message, a frame due in a
    // recording) that may complete frames: the packets made from them count
    // their way to the clients from this moment.
    virtual void markIngest() {}
};
