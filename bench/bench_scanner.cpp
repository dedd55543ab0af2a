// Scan throughput of the frame scanner over a full 64 MiB character buffer
// of mixed kind-1 and kind-2 frames with garbage between them, with the
// byte-by-byte candidate search, the memchr search and the SSE2 search. All
// must find the same frames; the figures are printed in MB/s (1 MB = 2^20 bytes).
// Then the copies into the buffer as a burst starts: full frames appended
// through a fresh buffer, through the one a silence left, and a pass later.

#include "src/korb_rdv_scanner.h"
#include "src/korb_rdv_sink.h"

#include <QElapsedTimer>
#include <QtEndian>

#include <cstdio>
#include <cstring>
#include <random>

namespace {

constexpr int BufferSize = KorbRdvScanner::MaxBufferSize;
constexpr int Rounds = 3;

class CountingSink : public KorbRdvSink
{
public:
    int clientCount() const override { return 1; }
    void sendRdv(const RdvFrame *) override { ++singles; }
    void sendRdv(const RdvChannelMap &) override { ++maps; }
    void sendPacket(const QByteArray &) override {} // the scanner builds its own
    long singles = 0;
    long maps = 0;
};

struct Layout
{
    long frames = 0;
    long garbageBytes = 0;
};

// Fills `buf` with frames (10 ms apart) and random garbage between them.
// Dense garbage has the magic's first byte at every fourth position, the
// worst case for a search that starts from that byte.
Layout fill(char *buf, int size, bool dense)
{
    std::mt19937 rng(20240607);
    Layout l;
    int pos = 0;
    quint32 ms = 0;
    for (;;) {
        const int kind = 1 + int(rng() % 2);
        const int count = 1 + int(rng() % 2000);
        const int len = 56 + count * (kind == 1 ? 4 : 8);
        const int garbage = int(rng() % 4096);
        if (pos + len + 2 + garbage > size)
            break;
        uchar *f = reinterpret_cast<uchar *>(buf + pos);
        std::memset(f, 0, 56);
        qToLittleEndian<quint32>(0x12345678, f);
        f[4] = uchar(kind);
        qToLittleEndian<quint32>(1700000000 + ms / 1000, f + 8);
        qToLittleEndian<quint32>((ms % 1000) * 1000000u, f + 12);
        f[16] = uchar(rng() % 8);
        qToLittleEndian<quint16>(quint16(count), f + 17);
        for (int i = 56; i < len; ++i)
            f[i] = uchar(rng());
        pos += len;
        buf[pos++] = 0;
        buf[pos++] = 0;
        for (int i = 0; i < garbage; ++i)
            buf[pos++] = (dense && rng() % 4 == 0) ? char(0x78) : char(rng());
        l.garbageBytes += garbage;
        ++l.frames;
        ms += 10;
    }
    std::memset(buf + pos, 0, size_t(size - pos));
    l.garbageBytes += size - pos;
    return l;
}

double mbPerSec(qint64 ns)
{
    return double(BufferSize) / double(1 << 20) / (double(ns) / 1e9);
}

struct Result
{
    qint64 bestNs = 0;
    long singles = 0;
    long maps = 0;
    int scanPos = 0;
};

// The whole image written through the scanner's window and scanned in one go.
Result runCalcBuff(const QByteArray &image, KorbRdvScanner::Search how)
{
    Result r;
    for (int round = 0; round < Rounds; ++round) {
        CountingSink sink;
        KorbRdvScanner scanner(&sink);
        scanner.setSearch(how);
        scanner.resetBuffer(BufferSize);
        std::memcpy(scanner.reserve(BufferSize), image.constData(), size_t(BufferSize));
        QElapsedTimer t;
        t.start();
        scanner.commit(BufferSize, false);
        const qint64 ns = t.nsecsElapsed();
        if (r.bestNs == 0 || ns < r.bestNs)
            r.bestNs = ns;
        r.singles = sink.singles;
        r.maps = sink.maps;
        r.scanPos = scanner.scanPos();
    }
    return r;
}

// Every valid header in the buffer, found by repeated searches.
Result runSearchAll(const char *buf, KorbRdvScanner::Search how)
{
    Result r;
    for (int round = 0; round < Rounds; ++round) {
        long found = 0;
        QElapsedTimer t;
        t.start();
        int pos = 0;
        while ((pos = KorbRdvScanner::findHeader(buf, pos, BufferSize - 1, how)) >= 0) {
            ++found;
            ++pos;
        }
        const qint64 ns = t.nsecsElapsed();
        if (r.bestNs == 0 || ns < r.bestNs)
            r.bestNs = ns;
        r.singles = found;
    }
    return r;
}

bool measure(const char *title, bool dense)
{
    QByteArray image(BufferSize + KorbRdvScanner::BufferSlack, '\0');
    const Layout l = fill(image.data(), BufferSize, dense);
    std::printf("%s: %d bytes, %ld frames, %ld garbage bytes (%.1f%%)\n", title, BufferSize, l.frames,
                l.garbageBytes, 100.0 * double(l.garbageBytes) / BufferSize);

    const Result byteScan = runCalcBuff(image, KorbRdvScanner::Search::Bytewise);
    const Result memScan = runCalcBuff(image, KorbRdvScanner::Search::Memchr);
    const Result simdScan = runCalcBuff(image, KorbRdvScanner::Search::Simd);
    std::printf(
        "  calcBuff byte-by-byte:      %8.1f MB/s  (%ld single, %ld map hand-offs, scan position %d)\n",
        mbPerSec(byteScan.bestNs), byteScan.singles, byteScan.maps, byteScan.scanPos);
    std::printf(
        "  calcBuff memchr:            %8.1f MB/s  (%ld single, %ld map hand-offs, scan position %d)\n",
        mbPerSec(memScan.bestNs), memScan.singles, memScan.maps, memScan.scanPos);
    std::printf(
        "  calcBuff simd (default):    %8.1f MB/s  (%ld single, %ld map hand-offs, scan position %d)\n",
        mbPerSec(simdScan.bestNs), simdScan.singles, simdScan.maps, simdScan.scanPos);

    const Result byteAll = runSearchAll(image.constData(), KorbRdvScanner::Search::Bytewise);
    const Result memAll = runSearchAll(image.constData(), KorbRdvScanner::Search::Memchr);
    const Result simdAll = runSearchAll(image.constData(), KorbRdvScanner::Search::Simd);
    std::printf("  every header, byte-by-byte: %8.1f MB/s  (%ld headers)\n", mbPerSec(byteAll.bestNs),
                byteAll.singles);
    std::printf("  every header, memchr:       %8.1f MB/s  (%ld headers)\n", mbPerSec(memAll.bestNs),
                memAll.singles);
    std::printf("  every header, simd:         %8.1f MB/s  (%ld headers)\n", mbPerSec(simdAll.bestNs),
                simdAll.singles);
    std::printf(
        "  speed-up over byte-by-byte: calcBuff memchr x%.2f, simd x%.2f; every header memchr x%.2f, "
        "simd x%.2f\n",
        double(byteScan.bestNs) / double(memScan.bestNs), double(byteScan.bestNs) / double(simdScan.bestNs),
        double(byteAll.bestNs) / double(memAll.bestNs), double(byteAll.bestNs) / double(simdAll.bestNs));

    const bool same = byteScan.singles == memScan.singles && byteScan.maps == memScan.maps &&
                      byteScan.scanPos == memScan.scanPos && byteAll.singles == memAll.singles &&
                      simdScan.singles == byteScan.singles && simdScan.maps == byteScan.maps &&
                      simdScan.scanPos == byteScan.scanPos && simdAll.singles == byteAll.singles &&
                      byteAll.singles == l.frames;
    std::printf("  results identical: %s\n", same ? "yes" : "NO");
    return same;
}

// One pass of full frames appended through the whole buffer, in ms.
double appendPass(KorbRdvScanner &scanner, const QByteArray &frame)
{
    QElapsedTimer t;
    t.start();
    for (int at = 0; at + frame.size() <= BufferSize; at += frame.size())
        scanner.append(frame.constData(), frame.size());
    return double(t.nsecsElapsed()) / 1e6;
}

void measureBurstStart()
{
    const QByteArray frame(56 + 4 * 13000, 'x');
    CountingSink sink;
    KorbRdvScanner scanner(&sink);
    scanner.resetBuffer(BufferSize);
    const double fresh = appendPass(scanner, frame);
    const double later = appendPass(scanner, frame);
    scanner.resetBuffer(0); // a silence
    scanner.resetBuffer(BufferSize);
    const double afterSilence = appendPass(scanner, frame);
    std::printf("burst start, %d-byte frames through %d bytes: fresh buffer %.1f ms, after a silence "
                "%.1f ms, a pass later %.1f ms\n",
                frame.size(), BufferSize, fresh, afterSilence, later);
}

} // namespace

int main()
{
    const bool a = measure("uniform random garbage", false);
    const bool b = measure("garbage dense in 0x78", true);
    measureBurstStart();
    return a && b ? 0 : 1;
}
