// Writes a seed for every fuzz target from the simulator's device data: fuzz_seeds DIR
#include "src/korb_rdv_packet.h"
#include "src/korb_rdv_synth.h"

#include <QDir>

int main(int argc, char **argv)
{
    bool ok = argc == 2;
    const auto put = [&](const char *target, const QByteArray &bytes) {
        QFile f(QString::fromLocal8Bit(argv[1]) + '/' + target + "/seed");
        ok = ok && QDir().mkpath(QFileInfo(f).path()) && f.open(QIODevice::WriteOnly) &&
             f.write(bytes) == bytes.size();
    };
    KorbRdvSynth synth;
    QByteArray steps, datagrams("\x02", 1); // per datagram: control byte, 16-bit length, the datagram
    for (quint32 i = 1; i <= 8; ++i) {
        const QByteArray d = KorbRdvSynth::datagram(i, synth.channelFrame(qint8(i % 3), 8));
        datagrams += QByteArray(1, '\0') + char(d.size()) + '\0' + d;
        steps += synth.nextStep();
    }
    put("scanner", "\x03\x01\x14" + steps); // buffer size, read sizes and interval, then the stream
    put("playback", "\x0F" + steps);        // steps, then the file
    put("udp", datagrams);
    put("decoder", Rdv::buildPacket(reinterpret_cast<const RdvFrame *>(synth.singleFrame(8).constData())));
    put("client_commands", "ims:20");
    put("control", "\x01\x05"
                   "alive\r\npause\r\nnum:7\r\nALIVE\r\n"); // flags and piece sizes, then the input
    return ok ? 0 : 1;
}
