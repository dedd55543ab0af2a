#pragma once

// Reader of the binary packets the relay sends to its WebSocket clients.
// A packet is either one single-frame block (fixed words 5,4,2,5 after the
// length, 8-byte samples) or a run of channel sub-blocks (fixed words
// 5,3,2,6, 4-byte samples), one per channel group. The reader trusts nothing:
// every read is bounds-checked, and the first fault ends decoding with its
// byte offset, keeping the blocks decoded before it.

#include "src/korb_rdv_wire.h"

#include <QByteArray>
#include <QString>
#include <QVector>
#include <QtGlobal>

// One decoded single-frame block or channel sub-block. Fields that the other
// layout does not carry stay 0.
struct RdvBlock
{
    enum Layout { Channel = 1, Single = 2 };

    Layout layout = Single;
    int offset = 0;         // byte offset of the block in the message
    int size = 0;           // bytes the block occupies
    quint16 lengthWord = 0; // length word as sent (truncated to 16 bits)

    qint8 frameType = 0;
    // Single-frame layout: bits 1, 2, 3 and 0 of the device's flags byte.
    qint8 flagBit1 = 0, flagBit2 = 0, flagBit3 = 0, flagBit0 = 0;
    // Channel layout: the nibbles byte split, the group byte and byte 7.
    qint8 nibbleLow = 0, nibbleHigh = 0, group = 0, byte7 = 0;
    quint16 sampleCount = 0; // as sent; the payload may be absent
    qint16 word5 = 0;
    qint16 word44 = 0, word46 = 0; // single-frame layout
    qint16 word20 = 0;             // channel layout
    qint32 intA = 0, intB = 0;
    double timeMs = 0, rate = 0, counterA = 0, counterB = 0, floatA = 0;
    double floatB = 0; // channel layout

    bool hasPayload = false;
    // Sample values, two per sample: signed 16-bit pairs for 4-byte samples,
    // signed 32-bit pairs for 8-byte samples.
    QVector<qint32> values;

    int sampleSize() const { return layout == Channel ? 4 : 8; }
    int headerSize() const { return layout == Channel ? Rdv::ChannelBlockHeaderSize : Rdv::PacketHeaderSize; }
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
