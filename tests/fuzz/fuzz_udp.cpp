// The UDP receive path, datagram by datagram for either port; one may ask for
// its header to be made right and to be sent again, so that the fuzzer
// reaches the reassembly and fills the receive area.
#include "fuzz_support.h"

#include "src/korb_rdv_synth.h"
#include "src/korb_rdv_udp_cli.h"

#include <memory>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Fuzz::setUp();
    Fuzz::Input in{data, size};
    Fuzz::PacketSink sink;
    auto udp = std::make_unique<KorbRdvStreamerUdp>(nullptr, &sink, nullptr, 0, 0); // too large for a stack
    udp->setBufferCapacity(65536 * (1 + in.byte() % 16));
    while (in.pos < in.size) {
        const uint8_t control = in.byte(); // bit 0: port; bit 1: header made right; the rest: extra sends
        const size_t length = in.byte() | in.byte() << 8;
        QByteArray datagram = in.take(length);
        for (int sends = 1 + (control >> 2); sends > 0; --sends) {
            if (control & 2)
                datagram = KorbRdvSynth::datagram(udp->lastSequence(control & 1) + 1, datagram.mid(8));
            udp->takeDatagram(control & 1, datagram);
        }
    }
    return 0;
}
