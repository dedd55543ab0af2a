#pragma once

#include "src/korb_rdv_sink.h"

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QString>

namespace AcqTest {

// A frame as the sink saw it: where it lay and a copy of its bytes taken at
// the moment of the call (the source may overwrite them later).
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

// Test double of the sink: reports a settable client count and records
// every hand-off.
class RecordingSink : public KorbRdvSink
{
public:
    int clients = 1;
    QList<Handoff> handoffs;

    int clientCount() const override { return clients; }
    void sendRdv(const RdvFrame *frame) override;
    void sendRdv(const RdvChannelMap &channels) override;

    // Hand-offs written as offsets from `base`: "F<off>" for a single frame,
    // "M<group>:<off>,..." for a map; separated by spaces.
    QString describe(const char *base) const;
};

// Length of a frame from its own header, decoded here and not by the code
// under test: 56 + count x 4 (kind 1) or x 8; the header alone otherwise.
int frameBytes(const char *frame);

} // namespace AcqTest
