// Packet building throughput: a full 13000-sample single frame and a map of
// eight channel groups. Prints packets/s and MB/s of packet bytes built.

#include "src/korb_rdv_packet.h"
#include "src/korb_rdv_synth.h"

#include <QElapsedTimer>

#include <cstdio>

namespace {

template <typename Build> void run(const char *name, Build build)
{
    // Warm up, then run for about a second.
    qint64 sink = 0;
    for (int i = 0; i < 100; ++i)
        sink += build().size();
    QElapsedTimer t;
    t.start();
    qint64 packets = 0, bytes = 0;
    while (t.elapsed() < 1000) {
        for (int i = 0; i < 100; ++i) {
            const QByteArray p = build();
            bytes += p.size();
            ++packets;
        }
    }
    const double secs = t.nsecsElapsed() / 1e9;
    std::printf("%-34s %9.0f packets/s  %8.1f MB/s  (%lld bytes/packet)\n", name, packets / secs,
                bytes / secs / 1e6, static_cast<long long>(bytes / qMax<qint64>(1, packets)));
    if (sink < 0)
        std::printf("?\n");
}

} // namespace

int main()
{
    KorbRdvSynth synth;
    const QByteArray full = synth.singleFrame(13000);
    const auto *frame = reinterpret_cast<const RdvFrame *>(full.constData());
    run("single frame, 13000 samples", [&] { return Rdv::buildPacket(frame); });

    const QByteArray empty = synth.singleFrame(0);
    const auto *header = reinterpret_cast<const RdvFrame *>(empty.constData());
    run("single frame, 0 samples", [&] { return Rdv::buildPacket(header); });

    for (int samples : {1000, 13000}) {
        QList<QByteArray> storage;
        RdvChannelMap map;
        for (int g = 0; g < 8; ++g) {
            storage << synth.channelFrame(qint8(g), samples);
            map.insert(qint8(g), reinterpret_cast<RdvChannelFrame *>(storage.last().data()));
        }
        const QByteArray name = "channel map, 8 groups x " + QByteArray::number(samples);
        run(name.constData(), [&] { return Rdv::buildPacket(map); });
    }
    return 0;
}
