#pragma once

#include "src/korb_large_buffer.h"
#include "src/korb_rdv_settings.h"
#include "src/korb_rdv_wire.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QtGlobal>

#include <functional>
#include <memory>

class KorbRdvSink;

// The road every device frame takes, whatever its source: the character
// buffer a stream source writes into and the search for frames in it, and
// the one accept step that every source hands its frames to. That step keeps
// the channel map, applies the rate gate and hands the frame or the map to
// the sink. The scanner owns no socket and no timer, so whoever has bytes or
// frames drives it directly.
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

    // How a source's frames pass the gate; each source sets its own.
    enum class Pacing {
        // Live bytes: the first frame after a reset only starts the clock, a
        // frame passes strictly more than the send interval after the last
        // one sent, and the map changes only while clients listen.
        Stream,
        // Live datagrams: as Stream, but every completed frame enters the map,
        // listened to or not.
        Datagrams,
        // A recorded file: the first frame after a reset passes, and a frame
        // passes at least one send interval after the last one of its kind
        // sent, so that frames spaced at the interval all go out.
        Playback
    };

    explicit KorbRdvScanner(KorbRdvSink *sink = nullptr, Pacing pacing = Pacing::Stream);
    ~KorbRdvScanner();

    void setSearch(Search s) { m_search = s; }
    // The send interval of the gate (the sources' runCmd(quint16)).
    void setSendIntervalMs(quint16 ms) { m_sendIntervalMs = ms; }

    // Allocates a zero-filled buffer of `size` bytes (0 releases it; a size
    // below 1 or above MaxBufferSize leaves no buffer) and resets the scan
    // state: fill end, scan position, frameSize and last sent time become 0,
    // the map is emptied and the throughput clock restarts. True when a
    // buffer now exists.
    bool resetBuffer(int size);

    bool hasBuffer() const { return bool(m_charBuff); }
    int charBuffSize() const { return m_charBuffSize; }
    int fillEnd() const { return m_fillEnd; }
    int scanPos() const { return m_scanPos; }
    int frameSize() const { return m_frameSize; }
    quint64 lastFrameTime() const { return m_lastFrameTime; }
    quint8 lastKind() const { return m_lastKind; }
    quint16 sendIntervalMs() const { return m_sendIntervalMs; }
    // Device frames the accept step took since the scanner was made, each
    // once (a scan's new look at the last one is not counted), for the
    // health figures.
    qint64 framesAccepted() const { return m_framesAccepted; }
    // Called with each of those frames as the accept step has taken it, and
    // whether it opened the gate (its packet went to the sink); the frame is
    // valid during the call.
    void setNewFrameListener(std::function<void(const char *frame, bool sent)> listener)
    {
        m_newFrame = std::move(listener);
    }

    // The write window of a stream source: where `n` bytes go at the fill
    // end, the fill first starting again at 0 (with the throughput report)
    // when they would not fit; null without a buffer or for more than it holds.
    char *reserve(int n);
    // `n` bytes have been written into the window: the fill end moves on and
    // the data is scanned; with `verbose` the first frame accepted in this
    // scan is described on the console.
    void commit(int n, bool verbose);
    // Copies a completed frame behind the fill end (through the window),
    // marks the new fill end with a zero byte when there is room, and returns
    // the copy, to be handed to the accept step: the map may refer to it,
    // since the map's frames are copied out before the fill reuses the
    // buffer. A kind-1 frame the buffer cannot take (no buffer, or one smaller
    // than the frame) is copied to its group's slot instead; anything else
    // gives null.
    const char *append(const char *data, int len);

    // The accept step: bookkeeping of an accepted frame, the channel map,
    // the rate gate and the hand-off to the sink, for every source. The frame
    // stays where the source keeps it: the scanner's own buffer, or memory the
    // source neither reuses nor frees while the map may refer to it.
    // `kind1OfThisScan` is given only by the scan: the latest kind-1 frame
    // accepted before a kind-2 frame in the same call. True when the sink was
    // handed the frame or the map.
    bool accept(const char *frame, const char *kind1OfThisScan = nullptr);
    // A source's batch of reads, bracketed for the sink (KorbRdvSink::holdPackets).
    void holdPackets();
    void releasePackets(bool newestOnly);

    // What the dumps write, as one copy each. The whole buffer in ring order:
    // from the first valid header after the fill end to the buffer's end,
    // then from the start to the fill end; into `out`, whose memory is used
    // when it holds charBuffSize() bytes.
    void bufDump(QByteArray &out) const;
    // "x;y" then one "%1;%2" line per value of the oldest frame still in the
    // ring (the one at the fill end, or at 0 when a frame would not fit
    // there); only the title when no valid header stands there.
    QByteArray csvDump() const;

    // First offset in [from, last] that holds a valid frame header, or -1.
    // Like the header test, it reads up to 18 bytes beyond `last`.
    static int findHeader(const char *buf, int from, int last, Search how);

private:
    // Keys of the map: every value of the group byte.
    static constexpr int MapKeys = 256;

    // The accept step; `isNew` is false for the scan's new look at the last
    // accepted frame, which goes through the gate all the same.
    bool acceptFrame(const char *frame, const char *kind1OfThisScan, bool isNew);
    // The channel map and the rate gate; true when the sink was handed the frame or the map.
    bool gate(const char *frame, const char *kind1OfThisScan);
    // Scans from the scan position to the fill end and accepts the frames.
    void calcBuff(bool verbose);
    // The fill starts again at 0; the map's frames in the buffer are kept first.
    void restartFill();
    // Points every map entry that lies in the buffer to a copy in its key's slot.
    void keepMapFrames();
    // Copies the channel frame's bytes into the key's slot (made when first
    // needed); null when no memory could be had for it.
    char *keep(qint8 key, const char *frame);
    // The diagnostic names the scan, whichever helper prints it.
    void describe(const char *frame, const char *function, int line) const;
    // Zeroes the buffer's written part and keeps it as the spare.
    void keepAsSpare();

    KorbRdvSink *const m_sink;
    const Pacing m_pacing;
    Korb::LargeBuffer m_charBuff;
    int m_charBuffSize = 0;
    // Bytes from the start that may have been written since the buffer was zero.
    int m_written = 0;
    // A released buffer, zeroed, for the next allocation of the same size.
    // Every burst after a silence fills 64 MiB at the device's rate; in
    // fresh memory, first touches of its pages cost the relay time just
    // when the burst starts. The kernel may take the spare's pages back in
    // the meantime.
    Korb::LargeBuffer m_spare;
    int m_fillEnd = 0;
    int m_scanPos = 0;
    bool m_scanPosAccepted = false; // the frame at the scan position was accepted
    int m_frameSize = 0;
    quint64 m_lastFrameTime = 0;
    quint8 m_lastKind = 0;
    quint16 m_sendIntervalMs;
    qint64 m_lastSentMs = 0;
    qint64 m_lastSingleSentMs = 0; // playback: single frames are gated apart
    RdvChannelMap m_map;
    // Where the map's frames go when the fill is about to overwrite them, so
    // that a group that falls quiet stays in every packet with its latest
    // frame: a slot of the largest channel frame per key, made when first
    // needed (at most 256 x 52056 bytes).
    std::unique_ptr<char[]> m_kept[MapKeys];
    QElapsedTimer m_throughput;
    Search m_search = Search::Simd;
    qint64 m_framesAccepted = 0;
    std::function<void(const char *, bool)> m_newFrame;
};
