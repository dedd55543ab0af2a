// The scanner fed through its write window in reads of random size, once with
// each search: all three must hand the same packets to the sink, and every
// block of them must be the block of a frame the stream held, as far as its
// bytes had been written when the packet was made and before the fill started
// again from 0 (what lay beyond is not that frame's any more).
#include "fuzz_support.h"

#include "src/korb_rdv_scanner.h"

#include <algorithm>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    constexpr int ReadLimits[] = {16, 256, 4096, 65536};
    Fuzz::setUp();
    Fuzz::Input in{data, size};
    const int bufferSize = 4096 * (1 + in.byte() % 32); // small buffers wrap often
    const uint8_t control = in.byte(), intervalMs = in.byte();
    const QByteArray stream = in.take(size);
    // Every valid header of the stream, with what the stream has of its frame.
    Fuzz::Origins origins;
    bool singles = false; // only a kind-2 frame files a kind-1 frame under -1
    for (int at = 0; at + Rdv::HeaderSize <= stream.size(); ++at) {
        const char *const f = stream.constData() + at;
        if (Rdv::headerValid(f)) {
            origins.add(QByteArray::fromRawData(f, qMin(Rdv::frameLength(f), stream.size() - at)), at);
            singles = singles || Rdv::kind(f) == 2;
        }
    }
    QVector<uint> packets[3];
    for (auto how :
         {KorbRdvScanner::Search::Bytewise, KorbRdvScanner::Search::Memchr, KorbRdvScanner::Search::Simd}) {
        Fuzz::PacketSink sink;
        KorbRdvScanner scanner(&sink);
        scanner.setSearch(how);
        scanner.setSendIntervalMs(intervalMs);
        FUZZ_CHECK(scanner.resetBuffer(bufferSize));
        qint64 fed = 0;         // stream bytes written so far
        QVector<qint64> passes; // where the fill started again from 0, in stream bytes
        const char *base = nullptr;
        // The first frame accepted is searched for before a frame's length of
        // data is there: the end of its header may not have been written yet,
        // and its block may then show bytes that never were the stream's.
        qint64 first = -1, firstFed = 0;
        scanner.setNewFrameListener([&](const char *f, bool) {
            if (first < 0) {
                first = (passes.isEmpty() ? 0 : passes.last()) + (f - base);
                firstFed = fed;
            }
        });
        const auto knownUntil = [&](qint64 at) {
            const auto next = std::upper_bound(passes.cbegin(), passes.cend(), at);
            return next == passes.cend() ? fed : qMin(fed, *next);
        };
        // Whether the first frame lacked any of its first `bytes` when accepted.
        const auto firstLacked = [&](int bytes) { return first >= 0 && first + bytes > firstFed; };
        // The relay's search; the others must give the same packets.
        if (how == KorbRdvScanner::Search::Simd)
            sink.check = [&](const QByteArray &packet, const QVector<RdvBlock> &blocks) {
                int unexplained = firstLacked(Rdv::HeaderSize) ? 1 : 0;
                for (const RdvBlock &b : blocks) {
                    if (!origins.explain(packet, b,
                                         [&](const Fuzz::Origin &o) { return int(knownUntil(o.at) - o.at); }))
                        FUZZ_CHECK(unexplained-- > 0);
                }
                // That frame is filed under the group byte it had then.
                FUZZ_CHECK(firstLacked(int(offsetof(RdvFrame, flags)) + 1) ||
                           Fuzz::groupsInOrder(blocks, singles));
            };
        uint32_t cuts = control * 2654435761u + 1u;
        for (int pos = 0, n; pos < stream.size(); pos += n) {
            n = qMin(qMin(Fuzz::nextSize(cuts, ReadLimits[control % 4]), stream.size() - pos), bufferSize);
            const int before = scanner.fillEnd();
            char *const window = scanner.reserve(n);
            FUZZ_CHECK(window);
            if (scanner.fillEnd() < before)
                passes << pos;
            base = window - scanner.fillEnd();
            memcpy(window, stream.constData() + pos, size_t(n));
            fed = pos + n;
            scanner.commit(n, pos == 0);
        }
        packets[int(how)] = sink.packets;
    }
    FUZZ_CHECK(packets[1] == packets[0] && packets[2] == packets[0]);
    return 0;
}
