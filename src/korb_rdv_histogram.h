#pragma once

#include <QtGlobal>

#include <array>

// A distribution of durations in fixed buckets, as Prometheus histograms
// count them: how many observations fell at or below each bound, their
// number and their sum. Observing costs a few comparisons and no memory.
class KorbRdvHistogram
{
public:
    // Upper bounds of the buckets in nanoseconds: 50 µs, where a packet
    // that leaves at once lands, to 1 s, past which a client sees old data.
    static constexpr std::array<qint64, 14> BoundsNs = {
        50'000,     100'000,    250'000,    500'000,     1'000'000,   2'500'000,   5'000'000,
        10'000'000, 25'000'000, 50'000'000, 100'000'000, 250'000'000, 500'000'000, 1'000'000'000};

    // The monotonic clock that durations are taken on, in nanoseconds.
    static qint64 clockNs();

    void observe(qint64 ns);

    // Observations at or below bound `i` (cumulative); past the last bound, all.
    qint64 countUpTo(int i) const;
    qint64 count() const { return m_count; }
    double sumSeconds() const { return double(m_sumNs) / 1e9; }

private:
    // Observations in each bucket alone, the last one above every bound.
    std::array<qint64, BoundsNs.size() + 1> m_buckets = {};
    qint64 m_count = 0;
    qint64 m_sumNs = 0;
};
