#pragma once

#include "src/korb_rdv_wire.h"

#include <QByteArray>

// Synthetic device data for the simulator, the benchmarks and the demo: a
// steady stream of acquisition steps, each holding one kind-1 frame per
// channel group (sine and cosine as pairs of signed 16-bit values, a different frequency per
// group) and,
// every few steps, one kind-2 frame (pairs of signed 32-bit I/Q samples of a
// rotating phasor). Time stamps advance by a fixed period.
class KorbRdvSynth
{
public:
    struct Options
    {
        int groups = 4;                // kind-1 channel groups per step (at most 16)
        int channelSamples = 1000;     // samples per kind-1 frame
        int singleSamples = 2000;      // samples per kind-2 frame
        int singleEvery = 5;           // a kind-2 frame every this many steps (0: none)
        int periodMs = 20;             // time between steps
        quint32 startSec = 1704067200; // 2024-01-01 00:00:00 UTC
        int trailerBytes = 2;          // bytes the device puts after every frame
    };

    explicit KorbRdvSynth(const Options &options);
    KorbRdvSynth();

    const Options &options() const { return m_options; }
    quint64 step() const { return m_step; }

    // All frames of the next step, each followed by its trailer bytes.
    QByteArray nextStep();

    // Single frames at the current step's time (no trailer).
    QByteArray channelFrame(qint8 group, int samples) const;
    QByteArray singleFrame(int samples) const;

    // A UDP datagram of the device: the 8-byte header (length, 2 unused
    // bytes, `sequence`) in front of `data`.
    static QByteArray datagram(quint32 sequence, const QByteArray &data);

private:
    void stepTime(quint32 *sec, quint32 *nsec) const;

    Options m_options;
    quint64 m_step = 0;
};
