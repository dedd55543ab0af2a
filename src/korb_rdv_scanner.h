#pragma once

#include "src/korb_rdv_settings.h"
#include "src/korb_rdv_wire.h"

#include <QElapsedTimer>
#include <QtGlobal>

#include <memory>

class KorbRdvSink;
class QIODevice;

// The frame scanner shared by every live data source: the character buffer
// the source fills, the search for device frames in it, and the rate gate
// that decides which frames reach the sink. It owns no socket and no timer,
// so it can be driven directly by whoever fills the buffer.
class KorbRdvScanner
{
    Q_DISABLE_COPY(KorbRdvScanner)

public:
    // Default and largest character buffer: 64 MiB holds several seconds of
    // the device's densest stream, and nothing larger is ever allocated.
    static constexpr int MaxBufferSize = Korb::DefaultMaxFileSize;
    // Zeroed bytes kept behind the buffer: a frame accepted near the end of
    // the data is handed on in place, and its reader follows the sample
    // count, so one largest frame's worth of slack keeps every such read
    // inside the allocation.
    static constexpr int BufferSlack = Rdv::MaxFrameSize;

    // How the next frame candidate is searched for. All give the same
    // result; the byte-by-byte form is the reference. Simd compares 16
    // offsets at once (memchr where SSE2 is missing) and is the default.
    enum class Search { Bytewise, Memchr, Simd };

    explicit KorbRdvScanner(KorbRdvSink *sink = nullptr);
    ~KorbRdvScanner();

    KorbRdvSink *sink() const { return m_sink; }
    void setSink(KorbRdvSink *sink) { m_sink = sink; }
    Search search() const { return m_search; }
    void setSearch(Search s) { m_search = s; }

    // Allocates a zero-filled buffer of `size` bytes (0 releases it; a size
    // below 1 or above MaxBufferSize leaves no buffer) and resets the scan
    // state: fill end, scan position, frameSize and last sent time become 0,
    // the map is emptied and the throughput clock restarts. True when a
    // buffer now exists.
    bool resetBuffer(int size);

    char *charBuff() const { return m_charBuff.get(); }
    int charBuffSize() const { return m_charBuffSize; }
    int fillEnd() const { return m_fillEnd; }
    void setFillEnd(int end) { m_fillEnd = end; }
    int scanPos() const { return m_scanPos; }
    void setScanPos(int pos) { m_scanPos = pos; }
    int frameSize() const { return m_frameSize; }
    void setFrameSize(int size) { m_frameSize = size; }
    quint64 lastFrameTime() const { return m_lastFrameTime; }
    quint8 lastKind() const { return m_lastKind; }
    quint16 sendIntervalMs() const { return m_sendIntervalMs; }
    void setSendIntervalMs(quint16 ms) { m_sendIntervalMs = ms; }
    qint64 lastSentMs() const { return m_lastSentMs; }
    RdvChannelMap &map() { return m_map; }
    const RdvChannelMap &map() const { return m_map; }
    QElapsedTimer &throughputClock() { return m_throughput; }
    // Frames accepted (noteFrame) since the scanner was made, for the health figures.
    qint64 framesAccepted() const { return m_framesAccepted; }

    // Scans from the scan position to the fill end, accepts frames and
    // hands them to the sink through the rate gate. With `verbose` the
    // first frame accepted in this call is described on the console.
    void calcBuff(bool verbose);

    // Bookkeeping for an accepted frame: frameSize, last frame time and
    // kind, and the first frame's time as the last sent time (so the very
    // first frame is never sent).
    void noteFrame(const char *frame);
    // Whether the sink has at least one consumer (a client, a broker link).
    bool clientsPresent() const;
    // The rate gate: opens when `ms` lies strictly more than the send
    // interval after the last sent time, compared as an unsigned 64-bit
    // difference, and then takes `ms` as the last sent time.
    bool gate(quint64 ms);

    // Reports the throughput since the last restart, marks the fill end
    // with a zero byte and starts filling at 0 again.
    void restartFill();
    // Copies `len` bytes behind the fill end, restarting the fill first when
    // they would not fit; marks the new fill end with a zero byte when there
    // is room. Returns the copy's position, or -1 without buffer or room.
    int append(const char *data, int len);

    // The whole buffer in ring order: from the first valid header after the
    // fill end to the buffer's end, then from the start to the fill end.
    void writeBuf(QIODevice *out) const;
    // "x;y" then one "%1;%2" line per value of the oldest frame still in the
    // ring (the one at the fill end, or at 0 when a frame would not fit
    // there); only the title when no valid header stands there.
    void writeCsv(QIODevice *out) const;

    // First offset in [from, last] that holds a valid frame header, or -1.
    // Like the header test, it reads up to 18 bytes beyond `last`.
    static int findHeader(const char *buf, int from, int last, Search how);

private:
    void describe(const char *frame, const char *function, int line) const;

    KorbRdvSink *m_sink = nullptr;
    // calloc'ed: a fresh buffer costs no page touching until it is filled.
    struct FreeDeleter
    {
        void operator()(char *p) const;
    };
    std::unique_ptr<char[], FreeDeleter> m_charBuff;
    int m_charBuffSize = 0;
    int m_fillEnd = 0;
    int m_scanPos = 0;
    int m_frameSize = 0;
    quint64 m_lastFrameTime = 0;
    quint8 m_lastKind = 0;
    quint16 m_sendIntervalMs;
    qint64 m_lastSentMs = 0;
    RdvChannelMap m_map;
    QElapsedTimer m_throughput;
    Search m_search = Search::Simd;
    qint64 m_framesAccepted = 0;
};
