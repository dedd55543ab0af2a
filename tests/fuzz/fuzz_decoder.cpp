// The client-side reader of the relay's packets, fed arbitrary messages: it
// must never read outside the message, and what it reports must add up.
// The edge relay's packet check takes every packet the decoder takes whole.
#include "fuzz_support.h"

#include "src/korb_rdv_decoder.h"
#include "src/korb_rdv_packet.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray message(reinterpret_cast<const char *>(data), int(size));
    const RdvDecoded d = KorbRdvDecoder::decode(message);
    int end = 0;
    for (const RdvBlock &b : d.blocks) {
        FUZZ_CHECK(b.offset == end && b.size >= b.headerSize());
        end += b.size;
        FUZZ_CHECK(end <= message.size());
    }
    FUZZ_CHECK(d.ok ? end == message.size() : d.errorOffset >= end && d.errorOffset <= message.size());
    FUZZ_CHECK(d.ok || !d.error.isEmpty());
    FUZZ_CHECK(!d.ok || d.blocks.isEmpty() || Rdv::isPacket(message));
    return 0;
}
