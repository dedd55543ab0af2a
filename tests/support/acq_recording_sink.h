#pragma once

#include "src/korb_rdv_sink.h"

#include <QByteArray>
#include <QList>
#include <QMap>

namespace AcqTest {

// A frame as the sink saw it: where it lay, and its bytes copied at the call
// (the source may overwrite them later).
struct SeenFrame
{
    const char *where = nullptr;
    QByteArray bytes;
};

// One hand-off: a single frame, or the channel map as it stood.
struct Handoff
{
    bool single = false;
    SeenFrame frame;
    QMap<qint8, SeenFrame> map;
};

// Sink double with a settable client count that records every hand-off.
class RecordingSink : public KorbRdvSink
{
public:
    int clients = 1;
    QList<Handoff> handoffs;

    int clientCount() const override { return clients; }
    void sendRdv(const RdvFrame *frame) override;
    void sendRdv(const RdvChannelMap &channels) override;
};

} // namespace AcqTest
