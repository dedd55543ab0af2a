// The UDP receive path, datagram by datagram for either port; one may ask for its header to be made right and
// to be sent again, so that the fuzzer reaches the reassembly and fills the receive area. Every block of
// every packet must be the block of a frame the datagrams carried (the second port's groups 8 higher), as far
// as its bytes had come when the next frame of its port opened, and the blocks' groups must rise as the map's
// keys do.
#include "fuzz_support.h"

#include "src/korb_rdv_synth.h"
#include "src/korb_rdv_udp_cli.h"

#include <memory>

namespace {
// Where a datagram opens a kind-1 frame: offset 8, or the first of 9..14; -1 for none.
int opening(const QByteArray &d)
{
    for (int off = KorbRdvStreamerUdp::FirstFrameOffset;
         off <= KorbRdvStreamerUdp::LastFrameOffset && off + Rdv::HeaderSize <= d.size(); ++off) {
        if (Rdv::headerValid(d.constData() + off) && Rdv::kind(d.constData() + off) == 1)
            return off;
    }
    return -1;
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Fuzz::setUp();
    Fuzz::Input in{data, size};
    Fuzz::PacketSink sink;
    Fuzz::Origins origins;
    int assembling[2] = {-1, -1}; // the origin each port's datagrams add to
    sink.check = [&](const QByteArray &packet, const QVector<RdvBlock> &blocks) {
        for (const RdvBlock &b : blocks)
            FUZZ_CHECK(origins.explain(packet, b));
        FUZZ_CHECK(Fuzz::groupsInOrder(blocks));
    };
    // A frame's bytes are its opening datagram's from the header on, then the
    // bodies of its port's next datagrams, until one opens a frame (whichever
    // datagrams the receiver drops, it drops the frame with them).
    const auto note = [&](int port, const QByteArray &d) {
        const int off = opening(d);
        if (off >= 0) {
            QByteArray f = d.mid(off);
            f[int(offsetof(RdvFrame, flags))] = char(quint8(f[int(offsetof(RdvFrame, flags))]) + 8 * port);
            assembling[port] = origins.add(f);
        } else if (assembling[port] >= 0) {
            QByteArray &f = origins[assembling[port]].bytes;
            const int missing = Rdv::frameLength(f.constData()) - f.size();
            if (missing > 0)
                f += d.mid(int(sizeof(RdvDatagramHeader)), missing);
        }
    };
    auto udp = std::make_unique<KorbRdvStreamerUdp>(nullptr, &sink, nullptr, 0, 0); // too large for a stack
    udp->setBufferCapacity(65536 * (1 + in.byte() % 16));
    while (in.pos < in.size) {
        const uint8_t control = in.byte(); // bit 0: port; bit 1: header made right; the rest: extra sends
        const size_t length = in.byte() | in.byte() << 8;
        QByteArray datagram = in.take(length);
        for (int sends = 1 + (control >> 2); sends > 0; --sends) {
            if (control & 2)
                datagram = KorbRdvSynth::datagram(udp->lastSequence(control & 1) + 1, datagram.mid(8));
            note(control & 1, datagram);
            udp->takeDatagram(control & 1, datagram);
        }
    }
    return 0;
}
