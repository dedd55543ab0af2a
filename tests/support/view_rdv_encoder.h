#pragma once

// Relay packets written apart from the relay's own builder, so decoder tests
// compare against an independent reading of the wire format.

#include <QByteArray>
#include <QVector>
#include <QtGlobal>

struct ViewBlockSpec
{
    bool channel = false;
    qint8 frameType = 2;
    // Fields 7..10: flag bits 1,2,3,0 (single) or low nibble, high nibble,
    // group, byte 7 (channel).
    qint8 small[4] = {0, 0, 0, 0};
    quint16 sampleCount = 0;
    qint16 word5 = 0;
    qint16 wordA = 0; // word44 (single) or word20 (channel)
    qint16 wordB = 0; // word46 (single only)
    qint32 intA = 0, intB = 0;
    double timeMs = 0, rate = 0, counterA = 0, counterB = 0, floatA = 0, floatB = 0;
    // Two values per sample; empty means a header-only block.
    QVector<qint32> values;
    // Written instead of the true length when >= 0.
    int lengthOverride = -1;
};

class ViewRdvEncoder
{
public:
    static QByteArray block(const ViewBlockSpec &fs);
    static QByteArray channelPacket(const QVector<ViewBlockSpec> &blocks);

    // A single frame or a channel block of `samples` patterned samples (0: header only).
    static ViewBlockSpec single(int samples, double timeMs = 1500);
    static ViewBlockSpec channel(qint8 group, int samples, double timeMs = 1500);

private:
    Q_DISABLE_COPY(ViewRdvEncoder)
    ViewRdvEncoder() = delete;
};
