// Writes a seed for every fuzz target from the simulator's device data:
// fuzz_seeds DIR (the corpus keeps more, a quiet group's among them).
#include "src/korb_rdv_packet.h"
#include "src/korb_rdv_synth.h"

#include <QDir>

int main(int argc, char **argv)
{
    bool ok = argc == 2;
    const auto put = [&](const char *target, const char *name, const QByteArray &bytes) {
        QFile f(QString::fromLocal8Bit(argv[1]) + '/' + target + '/' + name);
        ok = ok && QDir().mkpath(QFileInfo(f).path()) && f.open(QIODevice::WriteOnly) &&
             f.write(bytes) == bytes.size();
    };
    // Per datagram of the UDP target: control byte, 16-bit length, the datagram.
    const auto record = [](int control, const QByteArray &d) {
        return char(control) + QByteArray(1, char(d.size() & 0xFF)) + char(d.size() >> 8) + d;
    };
    KorbRdvSynth synth;
    QByteArray steps, datagrams("\x02", 1); // the buffer size
    for (quint32 i = 1; i <= 8; ++i) {
        datagrams += record(0, KorbRdvSynth::datagram(i, synth.channelFrame(qint8(i % 3), 8)));
        steps += synth.nextStep();
    }
    put("scanner", "seed", "\x03\x01\x14" + steps); // buffer size, read sizes and interval, then the stream
    put("playback", "seed", "\x0F" + steps);        // steps, then the file
    put("udp", "seed", datagrams);
    put("decoder", "seed",
        Rdv::buildPacket(reinterpret_cast<const RdvFrame *>(synth.singleFrame(8).constData())));
    put("client_commands", "seed", "ims:20");
    put("control", "seed",
        "\x01\x05"
        "alive\r\npause\r\nnum:7\r\nALIVE\r\n"); // flags and piece sizes, then the input

    return ok ? 0 : 1;
}
