// The UDP receive path: datagram header, sequence test, reassembly of frames
// across datagrams, the restart of the receive area and of the character
// buffer. The input is a run of datagrams for either port; a datagram may
// ask for its header to be made right (length, next sequence number) and to
// be sent again several times, so that the fuzzer reaches the reassembly and
// fills the 1 MiB receive area.
#include "fuzz_support.h"

#include "src/korb_rdv_synth.h"
#include "src/korb_rdv_udp_cli.h"

#include <memory>

namespace {
// Character buffers of 64 KiB to 1 MiB.
constexpr int BufferStep = 65536;
constexpr int BufferSteps = 16;
constexpr uint8_t PortBit = 1;
constexpr uint8_t FixHeaderBit = 2;
constexpr int RepeatShift = 2; // the upper six bits: extra sends of the datagram
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Fuzz::setUp();
    Fuzz::Input in(data, size);
    Fuzz::PacketSink sink;
    // On the heap: the receive areas make the object larger than a stack.
    auto udp = std::make_unique<KorbRdvStreamerUdp>(nullptr, &sink, nullptr, 0, 0);
    udp->setBufferCapacity(BufferStep * (1 + in.byte() % BufferSteps));
    while (in.remaining() > 0) {
        const uint8_t control = in.byte();
        const int port = control & PortBit;
        QByteArray datagram = in.take(in.word());
        const int sends = 1 + (control >> RepeatShift);
        for (int i = 0; i < sends; ++i) {
            if (control & FixHeaderBit) {
                const int headerSize = int(sizeof(RdvDatagramHeader));
                datagram = KorbRdvSynth::datagram(udp->lastSequence(port) + 1, datagram.mid(headerSize));
            }
            udp->takeDatagram(port, datagram);
        }
    }
    return 0;
}
