// Two careless clients against a running relay, beside one that behaves:
// one sends 60 KB "ims" commands and never reads the answers, one sends tiny
// binary messages and never reads either; both connect again whenever the
// relay drops them. Prints what the relay's memory did and whether the
// well-behaved client kept receiving. Loopback only.
//
//   bench_misbehaving_clients --port 3005 --pid <relay pid> [--seconds 15] [--ims 4]
//
// Start the relay with data to send, e.g. a recording:
//   KorbRdv_streamer -e -p 3005 -file=rec.rdv -addr=127.0.0.1:3999 -nofile

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QNetworkProxy>
#include <QTcpSocket>
#include <QTimer>
#include <QWebSocket>

#include <cstdio>
#include <functional>

namespace {

// The flooders keep this much queued on their side, so they never wait.
constexpr qint64 FloodQueueBytes = 256 * 1024;
constexpr int SampleMs = 100;

// A client frame, FIN set, masked with a zero key (the payload stays as it is).
QByteArray clientFrame(int opcode, const QByteArray &payload)
{
    QByteArray frame(1, char(0x80 | opcode));
    if (payload.size() < 126) {
        frame += char(0x80 | payload.size());
    } else {
        frame += char(0x80 | 126);
        frame += char(payload.size() >> 8);
        frame += char(payload.size() & 0xFF);
    }
    return frame + QByteArray(4, '\0') + payload;
}

qint64 rssKb(qint64 pid)
{
    QFile status(QStringLiteral("/proc/%1/status").arg(pid));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray &line : status.readAll().split('\n'))
        if (line.startsWith("VmRSS:"))
            return line.mid(6).trimmed().split(' ').value(0).toLongLong();
    return -1;
}

// A raw WebSocket client that never reads after the handshake and writes
// `unit` over and over; it connects again whenever it is dropped.
struct Flooder
{
    QTcpSocket socket;
    QByteArray unit;
    quint16 port = 0;
    bool upgraded = false;
    bool stopping = false;
    int connections = 0;
    int dropped = 0;
    qint64 unitsSent = 0;

    void start()
    {
        socket.setProxy(QNetworkProxy::NoProxy);
        QObject::connect(&socket, &QTcpSocket::connected, [this] {
            ++connections;
            socket.write("GET / HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                         "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n");
        });
        QObject::connect(&socket, &QTcpSocket::readyRead, [this] {
            if (upgraded || !socket.peek(4096).contains("\r\n\r\n"))
                return;
            upgraded = socket.peek(12) == "HTTP/1.1 101";
            socket.read(socket.peek(4096).indexOf("\r\n\r\n") + 4);
            socket.setReadBufferSize(1); // from now on it takes nothing off the wire
        });
        QObject::connect(&socket, &QTcpSocket::disconnected, [this] {
            ++dropped;
            QTimer::singleShot(0, [this] { reconnect(); });
        });
        reconnect();
    }
    void reconnect()
    {
        if (stopping)
            return;
        upgraded = false;
        socket.abort();
        socket.setReadBufferSize(0);
        socket.connectToHost(QStringLiteral("127.0.0.1"), port);
    }
    void topUp()
    {
        while (upgraded && socket.state() == QAbstractSocket::ConnectedState &&
               socket.bytesToWrite() < FloodQueueBytes) {
            socket.write(unit);
            ++unitsSent;
        }
    }
};

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QCommandLineParser cli;
    cli.setApplicationDescription(QStringLiteral("Careless clients against a running relay (loopback)."));
    cli.addHelpOption();
    cli.addOption({QStringLiteral("port"), QStringLiteral("relay's WebSocket port"), QStringLiteral("port")});
    cli.addOption(
        {QStringLiteral("pid"), QStringLiteral("relay's process id (memory)"), QStringLiteral("pid")});
    cli.addOption({QStringLiteral("seconds"), QStringLiteral("duration (15)"), QStringLiteral("s"), "15"});
    cli.addOption(
        {QStringLiteral("ims"), QStringLiteral("interval the commands set (4)"), QStringLiteral("ms"), "4"});
    cli.process(app);
    const quint16 port = quint16(cli.value(QStringLiteral("port")).toUInt());
    const qint64 pid = cli.value(QStringLiteral("pid")).toLongLong();
    const int seconds = cli.value(QStringLiteral("seconds")).toInt();
    if (port == 0 || pid <= 0 || seconds <= 0) {
        std::fprintf(stderr, "usage: %s --port P --pid PID [--seconds S] [--ims MS]\n", argv[0]);
        return 2;
    }

    const QByteArray ims = "ims:" + QByteArray(60000, ' ') + cli.value(QStringLiteral("ims")).toLatin1();
    Flooder commands;
    commands.unit = clientFrame(0x1, ims);
    commands.port = port;
    Flooder binaries;
    const QByteArray tiny = clientFrame(0x2, QByteArray(1, 'x'));
    binaries.unit = tiny.repeated(int(FloodQueueBytes / tiny.size()));
    binaries.port = port;

    QWebSocket reader;
    reader.setProxy(QNetworkProxy::NoProxy);
    QElapsedTimer clock;
    qint64 packets = 0, firstMs = -1, lastMs = -1, largestGapMs = 0, largestGapAtMs = 0;
    QObject::connect(&reader, &QWebSocket::binaryMessageReceived, [&](const QByteArray &) {
        const qint64 now = clock.elapsed();
        if (lastMs < 0)
            firstMs = now;
        else if (now - lastMs > largestGapMs) {
            largestGapMs = now - lastMs;
            largestGapAtMs = lastMs;
        }
        lastMs = now;
        ++packets;
    });

    const qint64 rssStart = rssKb(pid);
    qint64 rssMax = rssStart;
    clock.start();
    reader.open(QUrl(QStringLiteral("ws://127.0.0.1:%1").arg(port)));
    commands.start();
    binaries.start();

    QTimer pump;
    QObject::connect(&pump, &QTimer::timeout, [&] {
        commands.topUp();
        binaries.topUp();
    });
    pump.start(1);
    QTimer sampler;
    QObject::connect(&sampler, &QTimer::timeout, [&] { rssMax = qMax(rssMax, rssKb(pid)); });
    sampler.start(SampleMs);
    QTimer::singleShot(seconds * 1000, &app, &QCoreApplication::quit);
    app.exec();

    const qint64 rssEnd = rssKb(pid);
    // The gap still open at the end counts as well.
    if (lastMs >= 0 && clock.elapsed() - lastMs > largestGapMs) {
        largestGapMs = clock.elapsed() - lastMs;
        largestGapAtMs = lastMs;
    }
    commands.stopping = binaries.stopping = true;
    std::printf("careless clients, %d s on ws://127.0.0.1:%u (relay pid %lld)\n", seconds, port, pid);
    std::printf("command flooder: %lld commands of %d B, %d connections, dropped %d times\n",
                commands.unitsSent, int(commands.unit.size()), commands.connections, commands.dropped);
    std::printf("binary flooder:  %lld messages of %d B, %d connections, dropped %d times\n",
                binaries.unitsSent * (binaries.unit.size() / tiny.size()), int(tiny.size()),
                binaries.connections, binaries.dropped);
    std::printf("reader:          %lld packets, first after %lld ms, largest gap %lld ms (from %lld ms)\n",
                packets, firstMs, largestGapMs, largestGapAtMs);
    std::printf("relay VmRSS kB:  start %lld, max %lld, end %lld\n", rssStart, rssMax, rssEnd);
    std::printf(
        "RESULT tool=bench_misbehaving_clients secs=%d packets=%lld gap_max_ms=%lld rss_start_kb=%lld "
        "rss_max_kb=%lld rss_end_kb=%lld cmd_drops=%d bin_drops=%d\n",
        seconds, packets, largestGapMs, rssStart, rssMax, rssEnd, commands.dropped, binaries.dropped);
    return 0;
}
