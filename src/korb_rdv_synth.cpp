#include "src/korb_rdv_synth.h"

#include <QtEndian>

#include <cmath>
#include <cstring>
#include <vector>

namespace {

constexpr double TwoPi = 6.283185307179586;

// Frames are put together in a plain vector and copied into a QByteArray at
// the end; the generator is not on any hot path.
using Bytes = std::vector<uchar>;

template <typename T> void putAt(Bytes &frame, std::size_t offset, T value)
{
    qToLittleEndian<T>(value, frame.data() + offset);
}

void putFloatAt(Bytes &frame, std::size_t offset, float value)
{
    quint32 bits;
    std::memcpy(&bits, &value, 4);
    putAt<quint32>(frame, offset, bits);
}

int clampSamples(int n)
{
    return qBound(0, n, Rdv::MaxSamples);
}

} // namespace

KorbRdvSynth::KorbRdvSynth(const Options &options) : m_options(options)
{
    m_options.groups = qBound(0, m_options.groups, 16);
    m_options.channelSamples = clampSamples(m_options.channelSamples);
    m_options.singleSamples = clampSamples(m_options.singleSamples);
    m_options.periodMs = qMax(1, m_options.periodMs);
    m_options.trailerBytes = qBound(0, m_options.trailerBytes, 16);
}

KorbRdvSynth::KorbRdvSynth() : KorbRdvSynth(Options()) {}

void KorbRdvSynth::stepTime(quint32 *sec, quint32 *nsec) const
{
    const quint64 ms = m_step * quint64(m_options.periodMs);
    *sec = m_options.startSec + quint32(ms / 1000);
    // A quarter millisecond past the step: the millisecond time stays, and
    // the sub-second part is never 0 (whose rate field would be infinite).
    *nsec = quint32((ms % 1000) * 1000000 + 250000);
}

QByteArray KorbRdvSynth::channelFrame(qint8 group, int samples) const
{
    samples = clampSamples(samples);
    using F = RdvChannelFrame;
    Bytes f(size_t(Rdv::HeaderSize + samples * Rdv::Kind1SampleSize), 0);
    quint32 sec, nsec;
    stepTime(&sec, &nsec);
    putAt<quint32>(f, offsetof(F, magic), Rdv::Magic);
    putAt<qint8>(f, offsetof(F, frameType), 1);
    putAt<qint16>(f, offsetof(F, word5), qint16(m_step & 0x7FFF));
    putAt<qint8>(f, offsetof(F, byte7), 0);
    putAt<quint32>(f, offsetof(F, timeSec), sec);
    putAt<quint32>(f, offsetof(F, timeSub), nsec);
    putAt<qint8>(f, offsetof(F, byte16), group);
    putAt<quint16>(f, offsetof(F, sampleCount), quint16(samples));
    putAt<qint16>(f, offsetof(F, word20), qint16(samples));
    putAt<quint8>(f, offsetof(F, nibbles), quint8(((group & 0x0F) << 4) | 0x01));
    putAt<quint64>(f, offsetof(F, counterA), m_step);
    putAt<quint64>(f, offsetof(F, counterB), m_step * quint64(samples));
    putAt<qint32>(f, offsetof(F, intA), group * 100);
    putFloatAt(f, offsetof(F, floatA), 50000.0f);
    putFloatAt(f, offsetof(F, floatB), 1.0f + 0.25f * group);
    putAt<qint32>(f, offsetof(F, intB), qint32(m_step));

    // Continuous sine and cosine across steps: the phase follows the sample
    // counter. A 4-byte sample carries two signed 16-bit values, as the
    // relay's CSV dump, the client and the viewer read them.
    const double cycles = 2.0 + 1.5 * double(group & 0x0F); // per frame
    const double amplitude = 1000.0 * (1.0 + 0.25 * double(group & 0x0F));
    const quint64 first = m_step * quint64(samples);
    uchar *p = f.data() + Rdv::HeaderSize;
    for (int i = 0; i < samples; ++i) {
        const double ph = TwoPi * cycles * double(first + quint64(i)) / double(qMax(1, samples));
        qToLittleEndian<qint16>(qint16(std::lround(amplitude * std::sin(ph))), p + 4 * i);
        qToLittleEndian<qint16>(qint16(std::lround(0.5 * amplitude * std::cos(ph))), p + 4 * i + 2);
    }
    return QByteArray(reinterpret_cast<const char *>(f.data()), int(f.size()));
}

QByteArray KorbRdvSynth::singleFrame(int samples) const
{
    samples = clampSamples(samples);
    using F = RdvFrame;
    Bytes f(size_t(Rdv::HeaderSize + samples * Rdv::Kind2SampleSize), 0);
    quint32 sec, nsec;
    stepTime(&sec, &nsec);
    putAt<quint32>(f, offsetof(F, magic), Rdv::Magic);
    putAt<qint8>(f, offsetof(F, frameType), 2);
    putAt<qint16>(f, offsetof(F, word5), qint16(m_step & 0x7FFF));
    putAt<quint32>(f, offsetof(F, timeSec), sec);
    putAt<quint32>(f, offsetof(F, timeSub), nsec);
    putAt<quint8>(f, offsetof(F, flags), quint8(0x80 | (m_step & 0x0F)));
    putAt<quint16>(f, offsetof(F, sampleCount), quint16(samples));
    putAt<quint64>(f, offsetof(F, counterA), m_step);
    putAt<quint64>(f, offsetof(F, counterB), m_step * quint64(samples));
    putAt<qint32>(f, offsetof(F, intA), samples);
    putFloatAt(f, offsetof(F, floatA), 100000.0f);
    putAt<qint16>(f, offsetof(F, word44), 44);
    putAt<qint16>(f, offsetof(F, word46), 46);
    putAt<qint32>(f, offsetof(F, intB), qint32(m_step));

    // A phasor whose frequency sweeps slowly from step to step; an 8-byte
    // sample carries two signed 32-bit values (real, imaginary).
    const double cycles = 3.0 + 2.0 * std::sin(double(m_step) * 0.05);
    uchar *p = f.data() + Rdv::HeaderSize;
    for (int i = 0; i < samples; ++i) {
        const double ph = TwoPi * cycles * double(i) / double(qMax(1, samples));
        qToLittleEndian<qint32>(qint32(std::lround(800000.0 * std::cos(ph))), p + 8 * i);
        qToLittleEndian<qint32>(qint32(std::lround(800000.0 * std::sin(ph))), p + 8 * i + 4);
    }
    return QByteArray(reinterpret_cast<const char *>(f.data()), int(f.size()));
}

QByteArray KorbRdvSynth::nextStep()
{
    QByteArray out;
    const QByteArray trailer(m_options.trailerBytes, '\0');
    for (int g = 0; g < m_options.groups; ++g) {
        out += channelFrame(qint8(g), m_options.channelSamples);
        out += trailer;
    }
    if (m_options.singleEvery > 0 && m_step % quint64(m_options.singleEvery) == 0) {
        out += singleFrame(m_options.singleSamples);
        out += trailer;
    }
    ++m_step;
    return out;
}

QByteArray KorbRdvSynth::datagram(quint32 sequence, const QByteArray &data)
{
    QByteArray d(int(sizeof(RdvDatagramHeader)), '\0');
    qToLittleEndian<quint16>(quint16(d.size() + data.size()), d.data() + offsetof(RdvDatagramHeader, length));
    qToLittleEndian<quint32>(sequence, d.data() + offsetof(RdvDatagramHeader, sequence));
    return d + data;
}
