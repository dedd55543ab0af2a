#pragma once

// Reader of the binary packets the relay sends to its WebSocket clients: the
// blocks as the packet layout reads them, with their sample values. It
// trusts nothing: every read is bounds-checked, and the first fault ends
// decoding with its byte offset, keeping the blocks decoded before it.

#include "src/korb_rdv_packet.h"

#include <QByteArray>
#include <QString>
#include <QVector>
#include <QtGlobal>

// One decoded single-frame block or channel sub-block. Header fields that
// its layout does not carry stay 0.
struct RdvBlock : Rdv::PacketBlock
{
    // Sample values, two per sample: signed 16-bit pairs for 4-byte samples,
    // signed 32-bit pairs for 8-byte samples; none without a payload.
    QVector<qint32> values;
};

struct RdvDecoded
{
    QVector<RdvBlock> blocks; // every block decoded before a fault
    bool ok = false;
    int errorOffset = -1; // byte offset of the fault
    QString error;        // what is wrong there
};

class KorbRdvDecoder
{
public:
    // Decodes one binary WebSocket message.
    static RdvDecoded decode(const QByteArray &message);

private:
    Q_DISABLE_COPY(KorbRdvDecoder)
    KorbRdvDecoder() = delete;
};
