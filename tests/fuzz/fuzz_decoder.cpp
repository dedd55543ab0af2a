// The client-side reader of the relay's packets, fed arbitrary messages:
// it must never read outside the message, and what it reports must add up.
// The edge relay's stamp reader takes the same messages: every packet the
// decoder takes whole, it takes too, with the newest of its stamps.
#include "fuzz_support.h"

#include "src/korb_rdv_decoder.h"
#include "src/korb_rdv_packet.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray message(reinterpret_cast<const char *>(data), int(size));
    const RdvDecoded d = KorbRdvDecoder::decode(message);
    int end = 0;
    for (const RdvBlock &b : d.blocks) {
        FUZZ_CHECK(b.offset == end);
        FUZZ_CHECK(b.size >= b.headerSize());
        end += b.size;
        FUZZ_CHECK(end <= message.size());
    }
    quint64 stamp = 0;
    const bool stamped = Rdv::packetTimeMs(message, &stamp);
    if (d.ok) {
        FUZZ_CHECK(end == message.size());
        double newest = 0;
        bool plain = true; // every stamp a whole number of ms a double holds exactly
        for (const RdvBlock &b : d.blocks) {
            plain = plain && b.timeMs >= 0 && b.timeMs <= 9007199254740992.0;
            newest = qMax(newest, b.timeMs);
        }
        if (plain && !d.blocks.isEmpty())
            FUZZ_CHECK(stamped && stamp == quint64(newest));
    } else {
        FUZZ_CHECK(d.errorOffset >= end && d.errorOffset <= message.size());
        FUZZ_CHECK(!d.error.isEmpty());
    }
    return 0;
}
