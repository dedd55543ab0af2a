#include "src/korb_rdv_scanner.h"

#include "logger/korb_log.h"
#include "src/korb_rdv_packet.h"
#include "src/korb_rdv_settings.h"
#include "src/korb_rdv_sink.h"

#include <cstring>
#include <new>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace {
// Bytes per MiB as the diagnostics print sizes.
constexpr double MiBPerByte = 9.5367431640625e-07;
// First byte of the magic as it lies in memory (little-endian 0x12345678).
constexpr int MagicFirstByte = 0x78;
} // namespace

KorbRdvScanner::KorbRdvScanner(KorbRdvSink *sink, Pacing pacing)
    : m_sink(sink), m_pacing(pacing), m_sendIntervalMs(Korb::sendIntervalMs)
{
}

KorbRdvScanner::~KorbRdvScanner() = default;

bool KorbRdvScanner::resetBuffer(int size)
{
    keepAsSpare();
    if (size >= 1 && size <= MaxBufferSize) {
        if (m_spare.size() == qint64(size) + BufferSlack)
            m_charBuff = std::move(m_spare);
        else
            m_charBuff = Korb::LargeBuffer(qint64(size) + BufferSlack);
        m_spare = Korb::LargeBuffer();
        if (m_charBuff)
            m_charBuffSize = size;
    }
    m_fillEnd = 0;
    m_scanPos = 0;
    m_scanPosAccepted = false;
    m_frameSize = 0;
    m_lastSentMs = m_lastSingleSentMs = 0;
    m_map.clear();
    m_throughput.start();
    return bool(m_charBuff);
}

void KorbRdvScanner::keepAsSpare()
{
    if (!m_charBuff)
        return;
    m_charBuff.clear(m_written);
    m_written = 0;
    m_spare = std::move(m_charBuff);
    m_charBuffSize = 0;
}

int KorbRdvScanner::findHeader(const char *buf, int from, int last, Search how)
{
    if (!buf || from < 0 || from > last)
        return -1;
    const char *p = buf + from;
    const char *const stop = buf + last + 1;
    switch (how) {
    case Search::Bytewise:
        break;
    case Search::Memchr:
        // Only offsets holding the magic's first byte can start a header;
        // memchr skips everything else at memory speed.
        while (p < stop) {
            p = static_cast<const char *>(std::memchr(p, MagicFirstByte, size_t(stop - p)));
            if (!p)
                return -1;
            if (Rdv::headerValid(p))
                return int(p - buf);
            ++p;
        }
        return -1;
    case Search::Simd:
#if defined(__SSE2__)
    {
        // Sixteen candidate offsets at a time: the four magic bytes are
        // compared at offsets +0..+3 of each, so only whole magics survive,
        // however dense the garbage is in any one of its bytes. The loads
        // reach 18 bytes past the last candidate, no further than the header
        // test itself reads.
        const __m128i b0 = _mm_set1_epi8(char(0x78)), b1 = _mm_set1_epi8(char(0x56));
        const __m128i b2 = _mm_set1_epi8(char(0x34)), b3 = _mm_set1_epi8(char(0x12));
        while (stop - p >= 16) {
            const __m128i m0 = _mm_cmpeq_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i *>(p)), b0);
            const __m128i m1 = _mm_cmpeq_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i *>(p + 1)), b1);
            const __m128i m2 = _mm_cmpeq_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i *>(p + 2)), b2);
            const __m128i m3 = _mm_cmpeq_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i *>(p + 3)), b3);
            unsigned mask =
                unsigned(_mm_movemask_epi8(_mm_and_si128(_mm_and_si128(m0, m1), _mm_and_si128(m2, m3))));
            while (mask) {
                const int i = __builtin_ctz(mask);
                if (Rdv::headerValid(p + i))
                    return int(p + i - buf);
                mask &= mask - 1;
            }
            p += 16;
        }
        break; // the last few offsets one by one
    }
#else
        return findHeader(buf, from, last, Search::Memchr);
#endif
    }
    for (; p < stop; ++p) {
        if (Rdv::headerValid(p))
            return int(p - buf);
    }
    return -1;
}

bool KorbRdvScanner::accept(const char *frame, const char *kind1OfThisScan)
{
    return acceptFrame(frame, kind1OfThisScan, true);
}

bool KorbRdvScanner::acceptFrame(const char *frame, const char *kind1OfThisScan, bool isNew)
{
    const bool sent = gate(frame, kind1OfThisScan);
    if (isNew) {
        ++m_framesAccepted;
        if (m_newFrame)
            m_newFrame(frame, sent);
    }
    return sent;
}

bool KorbRdvScanner::gate(const char *frame, const char *kind1OfThisScan)
{
    const quint64 ms = Rdv::timeMs(frame);
    m_frameSize = Rdv::frameLength(frame);
    m_lastFrameTime = quint64(Rdv::secondsSince2000(frame));
    m_lastKind = Rdv::kind(frame);
    const bool single = m_lastKind == 2 && !kind1OfThisScan;
    // A recording mixes single frames and channel groups at the same times:
    // each kind is paced on its own there, so neither starves the other.
    qint64 &lastSent = single && m_pacing == Pacing::Playback ? m_lastSingleSentMs : m_lastSentMs;
    const bool fresh = lastSent == 0; // nothing gated since the reset
    if (fresh && m_pacing != Pacing::Playback)
        lastSent = qint64(ms); // live data: the first frame only starts the clock

    const bool listened = m_sink && m_sink->consumerCount() > 0;
    // A kind-2 frame behind kind-1 frames of the same scan re-files the
    // latest kind-1 frame under the kind-2 group slot (0xFF, key -1) and
    // gates the map, not the kind-2 frame.
    const char *const gated = m_lastKind == 2 && kind1OfThisScan ? kind1OfThisScan : frame;
    if (!single && (listened || m_pacing == Pacing::Datagrams)) {
        const qint8 key = m_lastKind == 2 ? qint8(-1) : Rdv::group(frame);
        m_map.insert(key, reinterpret_cast<RdvChannelFrame *>(const_cast<char *>(gated)));
    }
    if (!listened)
        return false;

    // The rate gate compares frame times, not the clock. Unsigned on purpose:
    // a frame older than the last sent one yields a huge difference and
    // passes, so a restarted device is not muted.
    const quint64 gatedMs = gated == frame ? ms : Rdv::timeMs(gated);
    const quint64 since = gatedMs - quint64(lastSent);
    const bool open =
        m_pacing == Pacing::Playback ? fresh || since >= m_sendIntervalMs : since > m_sendIntervalMs;
    if (!open)
        return false;
    lastSent = qint64(gatedMs);
    if (single)
        m_sink->sendRdv(reinterpret_cast<const RdvFrame *>(frame));
    else
        m_sink->sendRdv(m_map);
    return true;
}

void KorbRdvScanner::calcBuff(bool verbose)
{
    char *const buf = m_charBuff.data();
    if (!buf)
        return;
    int pos = m_scanPos;
    int end = m_fillEnd;
    const char *kind1 = nullptr; // the latest kind-1 frame accepted in this call
    while (pos < end) {
        // A candidate needs frameSize bytes (the last accepted frame's
        // length, not its own) before the fill end.
        const qint64 last = qMin(qint64(end) - m_frameSize, qint64(end) - 1);
        if (pos > last)
            return;
        pos = findHeader(buf, pos, int(last), m_search);
        if (pos < 0)
            return;
        // The next call starts at this frame again and finds it a second time.
        const bool again = m_scanPosAccepted && pos == m_scanPos;
        m_scanPos = pos;
        m_scanPosAccepted = true;
        const char *const f = buf + pos;
        const bool channel = Rdv::kind(f) == 1;
        acceptFrame(f, channel ? nullptr : kind1, !again);
        if (channel)
            kind1 = f;
        if (verbose)
            describe(f, Q_FUNC_INFO, __LINE__);
        verbose = false;
        // The two bytes after a frame are skipped unseen.
        pos += m_frameSize + 2;
        end = m_fillEnd;
    }
}

void KorbRdvScanner::describe(const char *frame, const char *function, int line) const
{
    const int group = Rdv::kind(frame) == 2 ? -1 : int(Rdv::group(frame));
    Korb::trace(__FILE__, line, function)
        << "frameSize:" << m_frameSize
        << "  charBuffSize:" << QString::number(m_charBuffSize * MiBPerByte, 'g', 3) + QStringLiteral("Mb")
        << " (" << m_charBuffSize << "b )" << group << Rdv::sampleCount(frame);
}

void KorbRdvScanner::holdPackets()
{
    if (m_sink)
        m_sink->holdPackets();
}

void KorbRdvScanner::releasePackets(bool newestOnly)
{
    if (m_sink)
        m_sink->releasePackets(newestOnly);
}

void KorbRdvScanner::restartFill()
{
    keepMapFrames();
    const double mib = m_charBuffSize * MiBPerByte;
    const qint64 ms = m_throughput.isValid() ? m_throughput.restart() : 0;
    if (!m_throughput.isValid())
        m_throughput.start();
    const double rate = ms > 0 ? mib / double(ms) * 1024.0 : 0.0;
    KTRACE << QString::number(mib, 'g', 3) + QStringLiteral("Mb ")
           << QString::number(rate, 'g', 2) + QStringLiteral("Mb/sec");
    if (m_charBuff && m_fillEnd >= 0 && m_fillEnd < m_charBuffSize)
        m_charBuff.data()[m_fillEnd] = 0;
    m_fillEnd = 0;
    m_scanPos = 0;
    m_scanPosAccepted = false;
}

void KorbRdvScanner::keepMapFrames()
{
    // Every frame the map refers to in the buffer, a group's that still
    // sends as well as a quiet one's: the fill will overwrite all of them.
    // Once a pass through the buffer, at most one frame per key is copied.
    const quintptr begin = quintptr(m_charBuff.data());
    const quintptr end = begin + quintptr(m_charBuffSize) + BufferSlack;
    for (auto it = m_map.begin(); it != m_map.end();) {
        const quintptr at = quintptr(it.value());
        if (at < begin || at >= end) {
            ++it;
        } else if (char *const kept = keep(it.key(), reinterpret_cast<const char *>(it.value()))) {
            it.value() = reinterpret_cast<RdvChannelFrame *>(kept);
            ++it;
        } else {
            it = m_map.erase(it); // without memory, no frame rather than a wrong one
        }
    }
}

char *KorbRdvScanner::keep(qint8 key, const char *frame)
{
    std::unique_ptr<char[]> &slot = m_kept[quint8(key)];
    if (!slot)
        slot.reset(new (std::nothrow) char[Rdv::MaxChannelFrameSize]);
    if (slot)
        std::memcpy(slot.get(), frame,
                    size_t(Rdv::channelFrameBytes(reinterpret_cast<const RdvChannelFrame *>(frame))));
    return slot.get();
}

char *KorbRdvScanner::reserve(int n)
{
    if (!m_charBuff || n < 0 || n > m_charBuffSize)
        return nullptr;
    if (qint64(m_fillEnd) + n > m_charBuffSize)
        restartFill();
    m_written = qMax(m_written, m_fillEnd + n);
    return m_charBuff.data() + m_fillEnd;
}

void KorbRdvScanner::commit(int n, bool verbose)
{
    if (!m_charBuff || n < 0 || qint64(m_fillEnd) + n > m_charBuffSize)
        return;
    m_fillEnd += n;
    calcBuff(verbose);
}

const char *KorbRdvScanner::append(const char *data, int len)
{
    char *const at = reserve(len);
    if (!at)
        return len >= Rdv::HeaderSize && Rdv::kind(data) == 1 ? keep(Rdv::group(data), data) : nullptr;
    std::memcpy(at, data, size_t(len));
    m_fillEnd += len;
    if (m_fillEnd < m_charBuffSize)
        m_charBuff.data()[m_fillEnd] = 0;
    return at;
}

void KorbRdvScanner::bufDump(QByteArray &out) const
{
    const char *const buf = m_charBuff.data();
    if (!buf) {
        out.clear();
        return;
    }
    // The oldest data lies behind the fill end; it starts at the first whole
    // frame there, so the file begins on a frame boundary.
    const int start = findHeader(buf, m_fillEnd, m_charBuffSize - 1, m_search);
    const int older = start >= 0 ? m_charBuffSize - start : 0;
    out.resize(older + m_fillEnd);
    std::memcpy(out.data(), buf + qMax(start, 0), size_t(older));
    std::memcpy(out.data() + older, buf, size_t(m_fillEnd));
}

QByteArray KorbRdvScanner::csvDump() const
{
    QByteArray text = "x;y\r\n";
    const char *const buf = m_charBuff.data();
    if (!buf)
        return text;
    const int pos = qint64(m_fillEnd) + m_frameSize > m_charBuffSize ? 0 : m_fillEnd;
    const char *const f = buf + pos;
    if (!Rdv::headerValid(f))
        return text;
    const int values = 2 * Rdv::sampleCount(f);
    const bool narrow = Rdv::kind(f) == 1;
    text.reserve(values * 12);
    for (int i = 0; i < values; ++i) {
        const qint64 v = narrow ? qAbs(qint64(Rdv::readLE<qint16>(f, Rdv::HeaderSize + 2 * i)))
                                : qint64(Rdv::readLE<qint32>(f, Rdv::HeaderSize + 4 * i));
        text += QByteArray::number(i);
        text += ';';
        text += QByteArray::number(v);
        text += "\r\n";
    }
    return text;
}
