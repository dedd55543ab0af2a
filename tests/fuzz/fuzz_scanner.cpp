// The frame scanner fed a byte stream in reads of random size, the way the
// TCP client fills it, once with each search method: all three must hand
// the same packets to the sink.
#include "fuzz_support.h"

#include "src/korb_rdv_scanner.h"

namespace {
// Character buffers of 4 KiB to 128 KiB: small ones wrap often.
constexpr int BufferStep = 4096;
constexpr int BufferSteps = 32;
// Largest reads a round may use, picked per input.
constexpr int ReadLimits[] = {16, 256, 4096, 65536};

QVector<uint> scan(KorbRdvScanner::Search how, int bufferSize, uint8_t seed, int readLimit,
                   quint16 intervalMs, const QByteArray &stream)
{
    Fuzz::PacketSink sink;
    KorbRdvScanner scanner(&sink);
    scanner.setSearch(how);
    scanner.setSendIntervalMs(intervalMs);
    FUZZ_CHECK(scanner.resetBuffer(bufferSize));
    Fuzz::Sizes sizes(seed);
    bool verbose = true;
    for (int pos = 0; pos < stream.size();) {
        const int n = qMin(qMin(sizes.next(readLimit), stream.size() - pos), scanner.charBuffSize());
        FUZZ_CHECK(scanner.append(stream.constData() + pos, n) >= 0);
        pos += n;
        scanner.calcBuff(verbose);
        verbose = false;
    }
    return sink.packets;
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Fuzz::setUp();
    Fuzz::Input in(data, size);
    const int bufferSize = BufferStep * (1 + in.byte() % BufferSteps);
    const uint8_t control = in.byte();
    const int readLimit = ReadLimits[control % 4];
    const quint16 intervalMs = in.byte();
    const QByteArray stream = in.rest();

    const QVector<uint> reference =
        scan(KorbRdvScanner::Search::Bytewise, bufferSize, control, readLimit, intervalMs, stream);
    FUZZ_CHECK(scan(KorbRdvScanner::Search::Memchr, bufferSize, control, readLimit, intervalMs, stream) ==
               reference);
    FUZZ_CHECK(scan(KorbRdvScanner::Search::Simd, bufferSize, control, readLimit, intervalMs, stream) ==
               reference);
    return 0;
}
