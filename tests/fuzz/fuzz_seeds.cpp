// Writes the seed inputs of every fuzz target, made from the simulator's
// synthetic device data, into DIR/<target>/: fuzz_seeds DIR
#include "src/korb_rdv_packet.h"
#include "src/korb_rdv_synth.h"

#include <QDir>
#include <QFile>

#include <cstdio>

namespace {

QString g_root;

void put(const char *target, const char *name, const QByteArray &bytes)
{
    const QString dir = g_root + QLatin1Char('/') + QLatin1String(target);
    QDir().mkpath(dir);
    QFile f(dir + QLatin1Char('/') + QLatin1String(name));
    if (!f.open(QIODevice::WriteOnly) || f.write(bytes) != bytes.size())
        std::fprintf(stderr, "cannot write %s\n", qPrintable(f.fileName()));
}

KorbRdvSynth::Options smallFrames(int trailer)
{
    KorbRdvSynth::Options o;
    o.groups = 3;
    o.channelSamples = 8;
    o.singleSamples = 8;
    o.singleEvery = 2;
    o.trailerBytes = trailer;
    return o;
}

QByteArray steps(KorbRdvSynth::Options o, int count)
{
    KorbRdvSynth synth(o);
    QByteArray stream;
    for (int i = 0; i < count; ++i)
        stream += synth.nextStep();
    return stream;
}

QByteArray bytes(std::initializer_list<int> values)
{
    QByteArray b;
    for (int v : values)
        b.append(char(v));
    return b;
}

// One record of the UDP target: control byte, 16-bit length, datagram.
QByteArray udpRecord(int control, const QByteArray &datagram)
{
    return bytes({control, datagram.size() & 0xFF, datagram.size() >> 8}) + datagram;
}

void scannerSeeds()
{
    // Buffer size, read sizes, send interval, then the stream.
    put("scanner", "steps", bytes({3, 1, 20}) + steps(smallFrames(2), 8));
    put("scanner", "back_to_back", bytes({0, 2, 0}) + steps(smallFrames(0), 6));
    put("scanner", "garbage_between",
        bytes({1, 3, 5}) + QByteArray(7, 'x') + steps(smallFrames(2), 2) +
            QByteArray("\x78\x56\x34\x12\x03", 5) + steps(smallFrames(2), 2));
    KorbRdvSynth::Options large = smallFrames(2);
    large.channelSamples = 1000;
    large.singleSamples = 500;
    put("scanner", "large_frames", bytes({0, 6, 1}) + steps(large, 2));
}

void udpSeeds()
{
    KorbRdvSynth synth(smallFrames(2));
    QByteArray in = bytes({2});
    quint32 seq[2] = {0, 0};
    for (int step = 0; step < 4; ++step) {
        for (int g = 0; g < 3; ++g) {
            const int port = g < 2 ? 0 : 1;
            in += udpRecord(port,
                            KorbRdvSynth::datagram(++seq[port], synth.channelFrame(qint8(g), 8) + "\0\0"));
        }
        synth.nextStep();
    }
    put("udp", "frames_on_both_ports", in);

    // A frame whose body continues in the next datagram.
    const QByteArray frame = synth.channelFrame(1, 64);
    put("udp", "split_frame",
        bytes({0}) + udpRecord(0, KorbRdvSynth::datagram(1, frame.left(100))) +
            udpRecord(0, KorbRdvSynth::datagram(2, frame.mid(100))) +
            udpRecord(0, KorbRdvSynth::datagram(3, synth.channelFrame(1, 64))));

    // Sent again and again with the header made right: fills the receive area.
    const int again = 2 | (63 << 2);
    QByteArray fill = bytes({15});
    for (int i = 0; i < 5; ++i)
        fill += udpRecord(again, KorbRdvSynth::datagram(0, synth.channelFrame(2, 1000)));
    put("udp", "fills_the_area", fill);
}

void decoderSeeds()
{
    KorbRdvSynth synth(smallFrames(0));
    const QByteArray single = synth.singleFrame(8);
    put("decoder", "single", Rdv::buildPacket(reinterpret_cast<const RdvFrame *>(single.constData())));
    QByteArray frames[3];
    RdvChannelMap map;
    for (int g = 0; g < 3; ++g) {
        frames[g] = synth.channelFrame(qint8(g), 8);
        map.insert(qint8(g), reinterpret_cast<RdvChannelFrame *>(frames[g].data()));
    }
    put("decoder", "channels", Rdv::buildPacket(map));
    QByteArray tooMany = synth.singleFrame(0);
    tooMany[17] = char(0xC9); // 13001 samples: the header goes without payload
    tooMany[18] = char(0x32);
    put("decoder", "header_only", Rdv::buildPacket(reinterpret_cast<const RdvFrame *>(tooMany.constData())));
}

void playbackSeeds()
{
    put("playback", "steps", bytes({15}) + steps(smallFrames(2), 10));
    put("playback", "garbage_between",
        bytes({7}) + QByteArray(9, '\x12') + steps(smallFrames(0), 3) + QByteArray(5, 'z') +
            steps(smallFrames(2), 3));
}

void commandSeeds()
{
    const char *texts[] = {"ims:20", "ims: 20 ", "csv:",    "buf:x",   "ims:65538", "ims:1",
                           "IMS:20", "ims",      "ims:1:2", "ims:abc", ""};
    int n = 0;
    for (const char *t : texts)
        put("client_commands", qPrintable(QStringLiteral("text_%1").arg(n++)), bytes({0}) + QByteArray(t));
    put("client_commands", "binary", bytes({1}) + QByteArray("\x01\x02\x03", 3));
}

void controlSeeds()
{
    put("control", "all_commands", bytes({1, 5}) + "alive\r\npause\r\nresume\r\nnum:7\r\nnum:\r\nALIVE\r\n");
    put("control", "terminate_first", bytes({0, 9}) + "terminate\r\nalive\r\n");
    put("control", "refused", bytes({2, 1}) + "terminate\r\npause\r\nnum:x\r\npartial");
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s DIR\n", argv[0]);
        return 2;
    }
    g_root = QString::fromLocal8Bit(argv[1]);
    scannerSeeds();
    udpSeeds();
    decoderSeeds();
    playbackSeeds();
    commandSeeds();
    controlSeeds();
    return 0;
}
