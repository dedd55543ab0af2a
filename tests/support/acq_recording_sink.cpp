#include "support/acq_recording_sink.h"

#include <QtEndian>

namespace AcqTest {

namespace {
// The frame with its length decoded here, not by the code under test:
// 56 + count x 4 (kind 1) or x 8 (kind 2); the header alone otherwise.
SeenFrame seen(const void *p)
{
    const char *c = static_cast<const char *>(p);
    const auto *u = reinterpret_cast<const uchar *>(c);
    const int count = qFromLittleEndian<quint16>(u + 17);
    const int len = u[4] == 1 ? 56 + 4 * count : (u[4] == 2 ? 56 + 8 * count : 56);
    return SeenFrame{c, QByteArray(c, len)};
}
} // namespace

void RecordingSink::sendRdv(const RdvFrame *frame)
{
    Handoff h;
    h.single = true;
    h.frame = seen(frame);
    handoffs.append(h);
}

void RecordingSink::sendRdv(const RdvChannelMap &channels)
{
    Handoff h;
    for (auto it = channels.cbegin(); it != channels.cend(); ++it)
        h.map.insert(it.key(), seen(it.value()));
    handoffs.append(h);
}

} // namespace AcqTest
