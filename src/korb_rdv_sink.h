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
};
