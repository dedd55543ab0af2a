// The scanner fed through its write window in reads of random size, once with each search: all three must
// hand the same packets to the sink, and each of them must decode. (That every block is a frame the input
// held is checked over the UDP path, which keeps the map's frames through the same scanner.)
#include "fuzz_support.h"

#include "src/korb_rdv_scanner.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    constexpr int ReadLimits[] = {16, 256, 4096, 65536};
    Fuzz::setUp();
    Fuzz::Input in{data, size};
    const int bufferSize = 4096 * (1 + in.byte() % 32); // small buffers wrap often
    const uint8_t control = in.byte(), intervalMs = in.byte();
    const QByteArray stream = in.take(size);
    QVector<uint> packets[3];
    for (auto how :
         {KorbRdvScanner::Search::Bytewise, KorbRdvScanner::Search::Memchr, KorbRdvScanner::Search::Simd}) {
        Fuzz::PacketSink sink;
        KorbRdvScanner scanner(&sink);
        scanner.setSearch(how);
        scanner.setSendIntervalMs(intervalMs);
        FUZZ_CHECK(scanner.resetBuffer(bufferSize));
        uint32_t cuts = control * 2654435761u + 1u;
        for (int pos = 0, n; pos < stream.size(); pos += n) {
            n = qMin(qMin(Fuzz::nextSize(cuts, ReadLimits[control % 4]), stream.size() - pos), bufferSize);
            char *const window = scanner.reserve(n);
            FUZZ_CHECK(window);
            memcpy(window, stream.constData() + pos, size_t(n));
            scanner.commit(n, pos == 0);
        }
        packets[int(how)] = sink.packets;
    }
    FUZZ_CHECK(packets[1] == packets[0] && packets[2] == packets[0]);
    return 0;
}
