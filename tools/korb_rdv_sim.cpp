// Device simulator: produces synthetic device frames (channel groups of sine
// waves and single frames of a rotating phasor, ~20 ms apart) and delivers
// them according to the chosen mode: a recording file that the daemon can
// replay with -file=, UDP datagrams to the daemon's two ports, or a TCP
// server that plays the device for the daemon's -addr=. The network modes
// run in real time for --seconds and talk to the loopback interface only.
//
//   korb_rdv_sim --write FILE | --udp HOST:PORT1,PORT2 | --tcp-listen PORT
//                [--seconds N] [--groups G] [--samples S]
//                [--single-samples S] [--single-every K] [--period-ms P]
//                [--start-sec UNIX] [--trailer B]

#include "src/korb_host_port.h"
#include "src/korb_rdv_settings.h"
#include "src/korb_rdv_synth.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFile>
#include <QHostAddress>
#include <QList>
#include <QPointer>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>
#include <QUdpSocket>

#include <cstdio>

namespace {

enum class Mode { None, Write, Udp, TcpListen };

// The simulator is a test tool: it sends to this machine only.
bool isLoopbackHost(const QString &host)
{
    const QString h = host.trimmed().toLower();
    return h == QLatin1String("127.0.0.1") || h == QLatin1String("localhost") || h == QLatin1String("::1");
}
// A TCP client that stops reading would otherwise make the server buffer
// the whole stream.
constexpr qint64 MaxClientBacklog = 16 * 1024 * 1024;

// A recording longer than this is surely a typing error.
constexpr int MaxSeconds = 24 * 3600;

struct Setup
{
    Mode mode = Mode::None;
    QString file;
    QString host;
    quint16 ports[2] = {0, 0};
    int seconds = 10;
    KorbRdvSynth::Options synth;
};

bool parseInt(const QCommandLineParser &p, const QCommandLineOption &o, int lo, int hi, int *out)
{
    if (!p.isSet(o))
        return true;
    bool ok = false;
    const qlonglong v = p.value(o).toLongLong(&ok);
    if (!ok || v < lo || v > hi) {
        std::fprintf(stderr, "--%s must be a number in [%d, %d]\n", qPrintable(o.names().first()), lo, hi);
        return false;
    }
    *out = int(v);
    return true;
}

int writeRecording(const Setup &s)
{
    QFile out(s.file);
    if (!out.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        std::fprintf(stderr, "cannot write %s: %s\n", qPrintable(s.file), qPrintable(out.errorString()));
        return 1;
    }
    KorbRdvSynth synth(s.synth);
    const quint64 steps = quint64(s.seconds) * 1000u / quint64(synth.options().periodMs);
    qint64 bytes = 0;
    for (quint64 i = 0; i < steps; ++i) {
        const QByteArray chunk = synth.nextStep();
        if (out.write(chunk) != chunk.size()) {
            std::fprintf(stderr, "write failed: %s\n", qPrintable(out.errorString()));
            return 1;
        }
        bytes += chunk.size();
    }
    out.close();
    std::printf("%s: %llu steps, %lld bytes\n", qPrintable(s.file), static_cast<unsigned long long>(steps),
                static_cast<long long>(bytes));
    if (bytes > Korb::DefaultMaxFileSize)
        std::fprintf(stderr, "warning: larger than %d bytes, the daemon will not replay it\n",
                     Korb::DefaultMaxFileSize);
    return 0;
}

// "HOST:PORT1,PORT2" with a loopback host and two ports.
bool parseUdpTarget(const QString &text, Setup *s)
{
    const Korb::HostPort target = Korb::splitHostPort(text);
    const QStringList ports = target.port.split(QLatin1Char(','));
    const QString &host = target.host;
    if (!target.separator || host.isEmpty() || ports.size() != 2) {
        std::fprintf(stderr, "--udp expects HOST:PORT1,PORT2\n");
        return false;
    }
    if (!isLoopbackHost(host)) {
        std::fprintf(stderr, "--udp sends to 127.0.0.1, localhost or ::1 only, not %s\n", qPrintable(host));
        return false;
    }
    for (int i = 0; i < 2; ++i) {
        if (!Korb::parsePort(ports[i].trimmed(), &s->ports[i])) {
            std::fprintf(stderr, "--udp: bad port %s\n", qPrintable(ports[i]));
            return false;
        }
    }
    s->host = host;
    return true;
}

// One kind-1 frame per datagram behind the 8-byte header (length, 2 unused
// bytes, sequence number counted per port from 1). The first half of the
// groups goes to the first port, the rest to the second, whose receiver
// numbers them 8 higher. Kind-2 frames do not travel over UDP.
int sendUdp(const Setup &s)
{
    QUdpSocket socket;
    const QHostAddress to(s.host == QLatin1String("localhost") ? QStringLiteral("127.0.0.1") : s.host);
    KorbRdvSynth synth(s.synth);
    const int steps = s.seconds * 1000 / synth.options().periodMs;
    const int firstPortGroups = (synth.options().groups + 1) / 2;
    quint32 seq[2] = {0, 0};
    qint64 datagrams = 0, failures = 0;

    QTimer timer;
    timer.setTimerType(Qt::PreciseTimer);
    timer.setInterval(synth.options().periodMs);
    int done = 0;
    QObject::connect(&timer, &QTimer::timeout, [&] {
        for (int g = 0; g < synth.options().groups; ++g) {
            const int port = g < firstPortGroups ? 0 : 1;
            const qint8 group = qint8(port == 0 ? g : g - firstPortGroups);
            const QByteArray frame = synth.channelFrame(group, synth.options().channelSamples) +
                                     QByteArray(synth.options().trailerBytes, '\0');
            const QByteArray d = KorbRdvSynth::datagram(++seq[port], frame);
            if (socket.writeDatagram(d, to, s.ports[port]) == d.size())
                ++datagrams;
            else
                ++failures;
        }
        synth.nextStep(); // on to the next step's time
        if (++done >= steps) {
            timer.stop();
            QCoreApplication::quit();
        }
    });
    timer.start();
    QCoreApplication::exec();
    std::printf("udp %s:%u,%u: %d steps, %lld datagrams, %lld failed\n", qPrintable(s.host), s.ports[0],
                s.ports[1], done, static_cast<long long>(datagrams), static_cast<long long>(failures));
    return failures ? 1 : 0;
}

// Plays the device: listens on the loopback address and streams the steps
// to every connected client in real time.
int serveTcp(const Setup &s)
{
    QTcpServer server;
    if (!server.listen(QHostAddress(QHostAddress::LocalHost), s.ports[0])) {
        std::fprintf(stderr, "cannot listen on 127.0.0.1:%u: %s\n", s.ports[0],
                     qPrintable(server.errorString()));
        return 1;
    }
    std::printf("listening on 127.0.0.1:%u for %d s\n", server.serverPort(), s.seconds);
    std::fflush(stdout);
    QList<QPointer<QTcpSocket>> clients;
    QObject::connect(&server, &QTcpServer::newConnection, [&] {
        while (QTcpSocket *c = server.nextPendingConnection()) {
            QObject::connect(c, &QTcpSocket::disconnected, c, &QObject::deleteLater);
            clients << c;
        }
    });
    KorbRdvSynth synth(s.synth);
    const int steps = s.seconds * 1000 / synth.options().periodMs;
    qint64 bytes = 0;
    int done = 0;
    QTimer timer;
    timer.setTimerType(Qt::PreciseTimer);
    timer.setInterval(synth.options().periodMs);
    QObject::connect(&timer, &QTimer::timeout, [&] {
        const QByteArray chunk = synth.nextStep();
        for (const QPointer<QTcpSocket> &c : qAsConst(clients)) {
            if (c && c->state() == QAbstractSocket::ConnectedState && c->bytesToWrite() < MaxClientBacklog)
                bytes += c->write(chunk);
        }
        clients.removeAll(nullptr);
        if (++done >= steps) {
            timer.stop();
            for (const QPointer<QTcpSocket> &c : qAsConst(clients)) {
                if (c)
                    c->disconnectFromHost();
            }
            QTimer::singleShot(100, QCoreApplication::instance(), &QCoreApplication::quit);
        }
    });
    timer.start();
    QCoreApplication::exec();
    std::printf("tcp 127.0.0.1:%u: %d steps, %lld bytes sent\n", server.serverPort(), done,
                static_cast<long long>(bytes));
    return 0;
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("korb_rdv_sim"));

    QCommandLineParser p;
    p.setApplicationDescription(QStringLiteral("Synthetic device frames for KorbRdv_streamer."));
    p.addHelpOption();
    const QCommandLineOption write(QStringLiteral("write"), QStringLiteral("Write a recording to <file>."),
                                   QStringLiteral("file"));
    const QCommandLineOption seconds(QStringLiteral("seconds"), QStringLiteral("Length of the data (10)."),
                                     QStringLiteral("n"));
    const QCommandLineOption groups(QStringLiteral("groups"), QStringLiteral("Channel groups per step (4)."),
                                    QStringLiteral("n"));
    const QCommandLineOption samples(
        QStringLiteral("samples"), QStringLiteral("Samples per channel frame (1000)."), QStringLiteral("n"));
    const QCommandLineOption singleSamples(QStringLiteral("single-samples"),
                                           QStringLiteral("Samples per single frame (2000)."),
                                           QStringLiteral("n"));
    const QCommandLineOption singleEvery(QStringLiteral("single-every"),
                                         QStringLiteral("A single frame every n steps, 0 for none (5)."),
                                         QStringLiteral("n"));
    const QCommandLineOption period(QStringLiteral("period-ms"), QStringLiteral("Time between steps (20)."),
                                    QStringLiteral("ms"));
    const QCommandLineOption startSec(QStringLiteral("start-sec"),
                                      QStringLiteral("Unix time of the first step (2024-01-01)."),
                                      QStringLiteral("s"));
    const QCommandLineOption trailer(QStringLiteral("trailer"),
                                     QStringLiteral("Bytes after every frame, as the device sends (2)."),
                                     QStringLiteral("n"));
    const QCommandLineOption udp(QStringLiteral("udp"),
                                 QStringLiteral("Send datagrams to <host:port1,port2> (loopback only)."),
                                 QStringLiteral("host:port1,port2"));
    const QCommandLineOption tcpListen(
        QStringLiteral("tcp-listen"),
        QStringLiteral("Play the device on 127.0.0.1:<port> (0: any free port)."), QStringLiteral("port"));
    p.addOptions({write, udp, tcpListen, seconds, groups, samples, singleSamples, singleEvery, period,
                  startSec, trailer});
    p.process(app);

    Setup s;
    if (int(p.isSet(write)) + int(p.isSet(udp)) + int(p.isSet(tcpListen)) > 1) {
        std::fprintf(stderr, "give one of --write, --udp and --tcp-listen\n");
        return 2;
    }
    if (p.isSet(write)) {
        s.mode = Mode::Write;
        s.file = p.value(write);
    }
    if (p.isSet(udp)) {
        s.mode = Mode::Udp;
        if (!parseUdpTarget(p.value(udp), &s))
            return 2;
    }
    int listenPort = 0;
    if (p.isSet(tcpListen)) {
        s.mode = Mode::TcpListen;
        if (!parseInt(p, tcpListen, 0, 65535, &listenPort))
            return 2;
        s.ports[0] = quint16(listenPort);
    }
    int start = int(s.synth.startSec);
    if (!parseInt(p, seconds, 1, MaxSeconds, &s.seconds) || !parseInt(p, groups, 0, 16, &s.synth.groups) ||
        !parseInt(p, samples, 0, 13000, &s.synth.channelSamples) ||
        !parseInt(p, singleSamples, 0, 13000, &s.synth.singleSamples) ||
        !parseInt(p, singleEvery, 0, 1000000, &s.synth.singleEvery) ||
        !parseInt(p, period, 1, 60000, &s.synth.periodMs) || !parseInt(p, startSec, 0, 0x7FFFFFFF, &start) ||
        !parseInt(p, trailer, 0, 16, &s.synth.trailerBytes))
        return 2;
    s.synth.startSec = quint32(start);

    switch (s.mode) {
    case Mode::Write:
        return writeRecording(s);
    case Mode::Udp:
        return sendUdp(s);
    case Mode::TcpListen:
        return serveTcp(s);
    case Mode::None:
        break;
    }
    std::fprintf(stderr, "no mode given (--write FILE, --udp HOST:PORT1,PORT2 or --tcp-listen PORT)\n");
    p.showHelp(2);
}
