// korb_rdv_client: watches the packets of a relay from the command line.
//
//   korb_rdv_client [ws://HOST:PORT] [--token T] [--cmd TEXT]... [--count N] [--csv FILE] [--timeout S]
//
// Prints one summary line per second for every group that sent data, the
// replies to the commands it sent, and every malformed packet with the byte
// offset of the fault. Exit status: 0 done, 1 usage or connection error,
// 2 timed out, 3 the relay closed the connection first.

#include "src/korb_rdv_decoder.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDateTime>
#include <QFile>
#include <QMap>
#include <QNetworkRequest>
#include <QTextStream>
#include <QTimer>
#include <QUrl>
#include <QWebSocket>

#include <cmath>
#include <cstdio>
#include <limits>

namespace {

// Summary key of single-frame packets: outside the range of a group byte.
constexpr int SingleFrameKey = 1000;
// How long to wait for replies still missing once nothing else keeps the
// client running (csv and buf are never answered).
constexpr int ReplyWaitMs = 1500;

struct ClientOptions
{
    QUrl url;
    QStringList commands;
    QByteArray token;  // an operator's token: sent in the Authorization header, never in the URL
    qint64 count = -1; // stop after this many packets; -1 runs until stopped
    QString csvPath;
    int timeoutSec = 0; // 0: no time limit
};

QString groupName(int key)
{
    return key == SingleFrameKey ? QStringLiteral("single  ") : QStringLiteral("group %1").arg(key, 3);
}

} // namespace

class KorbRdvClient : public QObject
{
    Q_OBJECT
public:
    explicit KorbRdvClient(const ClientOptions &options, QObject *parent = nullptr)
        : QObject(parent), m_options(options),
          m_socket(new QWebSocket(QString(), QWebSocketProtocol::VersionLatest, this)),
          m_secondTimer(new QTimer(this)), m_replyTimer(new QTimer(this))
    {
        m_socket->setMaxAllowedIncomingMessageSize(Rdv::MaxPacketSize);
        m_socket->setMaxAllowedIncomingFrameSize(Rdv::MaxPacketSize);
        connect(m_socket, &QWebSocket::connected, this, &KorbRdvClient::onConnected);
        connect(m_socket, &QWebSocket::disconnected, this, &KorbRdvClient::onDisconnected);
        connect(m_socket, QOverload<QAbstractSocket::SocketError>::of(&QWebSocket::error), this,
                &KorbRdvClient::onError);
        connect(m_socket, &QWebSocket::binaryMessageReceived, this, &KorbRdvClient::onPacket);
        connect(m_socket, &QWebSocket::textMessageReceived, this, &KorbRdvClient::onReply);
        m_secondTimer->setInterval(1000);
        connect(m_secondTimer, &QTimer::timeout, this, &KorbRdvClient::printSummary);
        m_replyTimer->setSingleShot(true);
        m_replyTimer->setInterval(ReplyWaitMs);
        connect(m_replyTimer, &QTimer::timeout, this, [this] { finish(0); });
    }

    bool start()
    {
        if (!m_options.csvPath.isEmpty()) {
            m_csv.setFileName(m_options.csvPath);
            if (!m_csv.open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Text)) {
                std::fprintf(stderr, "cannot write %s: %s\n", qPrintable(m_options.csvPath),
                             qPrintable(m_csv.errorString()));
                return false;
            }
            m_csvOut.setDevice(&m_csv);
            m_csvOut << "packet,block,layout,group,time_ms,sample,value0,value1\n";
        }
        if (m_options.timeoutSec > 0)
            QTimer::singleShot(m_options.timeoutSec * 1000, this, [this] {
                std::fprintf(stderr, "timed out after %d s: %lld packets received\n", m_options.timeoutSec,
                             m_packets);
                finish(2);
            });
        std::printf("connecting to %s\n", qPrintable(m_options.url.toString()));
        QNetworkRequest request(m_options.url);
        if (!m_options.token.isEmpty())
            request.setRawHeader("Authorization", "Bearer " + m_options.token);
        m_socket->open(request);
        return true;
    }

signals:
    void finished(int exitCode);

private slots:
    void onConnected()
    {
        m_wasConnected = true;
        std::printf("connected\n");
        std::fflush(stdout);
        m_secondTimer->start();
        for (const QString &cmd : qAsConst(m_options.commands)) {
            std::printf("sent: %s\n", qPrintable(cmd));
            m_socket->sendTextMessage(cmd);
        }
        if (!m_options.commands.isEmpty() && m_options.count < 0)
            m_replyTimer->start();
    }

    void onDisconnected()
    {
        if (m_done)
            return;
        if (!m_wasConnected) {
            connectFailed();
            return;
        }
        std::fprintf(stderr, "relay closed the connection after %lld packets\n", m_packets);
        finish(3);
    }

    // Either signal may come first when the connection is refused.
    void onError(QAbstractSocket::SocketError)
    {
        if (!m_done && !m_wasConnected)
            connectFailed();
    }

    void onReply(const QString &text)
    {
        std::printf("reply: %s\n", qPrintable(text));
        std::fflush(stdout);
        ++m_replies;
        if (!m_options.commands.isEmpty() && (m_options.count < 0 || m_packets >= m_options.count)) {
            if (m_replies >= m_options.commands.size())
                finish(0);
            else
                m_replyTimer->start();
        }
    }

    void onPacket(const QByteArray &message)
    {
        if (m_done || (m_options.count > 0 && m_packets >= m_options.count))
            return;
        ++m_packets;
        const RdvDecoded d = KorbRdvDecoder::decode(message);
        if (!d.ok) {
            ++m_malformed;
            std::fprintf(stderr, "malformed packet #%lld (%d bytes) at offset %d: %s\n", m_packets,
                         int(message.size()), d.errorOffset, qPrintable(d.error));
        }
        // Blocks before a fault are sound and still counted.
        for (int i = 0; i < d.blocks.size(); ++i)
            account(d.blocks.at(i), i);
        if (m_options.count > 0 && m_packets >= m_options.count) {
            printSummary();
            // Replies still due get a moment; csv and buf are never answered.
            if (m_replies >= m_options.commands.size())
                finish(0);
            else
                m_replyTimer->start();
        }
    }

    void printSummary()
    {
        const QString now = QTime::currentTime().toString(QStringLiteral("hh:mm:ss.zzz"));
        for (auto it = m_groups.begin(); it != m_groups.end(); ++it) {
            GroupStats &g = it.value();
            if (g.packets == 0)
                continue;
            const QString range = g.haveValues ? QStringLiteral("min %1 max %2").arg(g.min).arg(g.max)
                                               : QStringLiteral("no payload");
            std::printf("%s %s %4d pk/s %6d samples  t=%.0f ms  %s  rate %g\n", qPrintable(now),
                        qPrintable(groupName(it.key())), g.packets, int(g.samples), g.timeMs,
                        qPrintable(range), g.rate);
            g = GroupStats();
        }
        std::fflush(stdout);
    }

private:
    struct GroupStats
    {
        int packets = 0;     // blocks of this group in the current second
        quint16 samples = 0; // sample count of the latest block
        double timeMs = 0, rate = 0;
        bool haveValues = false;
        qint32 min = std::numeric_limits<qint32>::max();
        qint32 max = std::numeric_limits<qint32>::min();
    };

    void account(const RdvBlock &b, int index)
    {
        using F = Rdv::Field;
        const int group = int(b[F::Group]);
        GroupStats &g = m_groups[b.single() ? SingleFrameKey : group];
        ++g.packets;
        g.samples = b.sampleCount();
        g.timeMs = b[F::TimeMs];
        g.rate = b[F::Rate];
        for (const qint32 v : b.values) {
            g.haveValues = true;
            g.min = qMin(g.min, v);
            g.max = qMax(g.max, v);
        }
        if (!m_csv.isOpen() || !b.hasPayload)
            return;
        const QString layout = b.single() ? QStringLiteral("single") : QStringLiteral("channel");
        const QString groupText = b.single() ? QString() : QString::number(group);
        const QString time = QString::number(b[F::TimeMs], 'f', 0);
        for (int s = 0; s < b.sampleCount(); ++s)
            m_csvOut << m_packets << ',' << index << ',' << layout << ',' << groupText << ',' << time << ','
                     << s << ',' << b.values.at(2 * s) << ',' << b.values.at(2 * s + 1) << '\n';
    }

    void connectFailed()
    {
        std::fprintf(stderr, "connection to %s failed: %s\n", qPrintable(m_options.url.toString()),
                     qPrintable(m_socket->errorString()));
        finish(1);
    }

    void finish(int code)
    {
        if (m_done)
            return;
        m_done = true;
        m_secondTimer->stop();
        m_replyTimer->stop();
        if (m_csv.isOpen()) {
            m_csvOut.flush();
            m_csv.close();
        }
        std::printf("%lld packets, %lld malformed, %d replies\n", m_packets, m_malformed, m_replies);
        std::fflush(stdout);
        m_socket->close();
        emit finished(code);
    }

    Q_DISABLE_COPY(KorbRdvClient)

    const ClientOptions m_options;
    QWebSocket *m_socket;
    QTimer *m_secondTimer;
    QTimer *m_replyTimer;
    QFile m_csv;
    QTextStream m_csvOut;
    QMap<int, GroupStats> m_groups;
    qint64 m_packets = 0;
    qint64 m_malformed = 0;
    int m_replies = 0;
    bool m_wasConnected = false;
    bool m_done = false;
};

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("korb_rdv_client"));
    // Live output must reach a pipe at once, not when a buffer fills.
    std::setvbuf(stdout, nullptr, _IOLBF, 0);

    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Decodes and summarises the packets of a KorbRdv relay."));
    parser.addHelpOption();
    parser.addPositionalArgument(QStringLiteral("url"),
                                 QStringLiteral("Relay address (default ws://127.0.0.1:3005)."),
                                 QStringLiteral("[ws://HOST:PORT]"));
    const QCommandLineOption cmdOpt(
        QStringLiteral("cmd"),
        QStringLiteral("Send a text command, e.g. \"ims:100\", and print the reply "
                       "(repeatable). Without --count the client exits once answered."),
        QStringLiteral("text"));
    const QCommandLineOption countOpt({QStringLiteral("n"), QStringLiteral("count")},
                                      QStringLiteral("Stop after N packets."), QStringLiteral("N"));
    const QCommandLineOption csvOpt(QStringLiteral("csv"),
                                    QStringLiteral("Write the decoded samples to FILE as CSV."),
                                    QStringLiteral("FILE"));
    const QCommandLineOption timeoutOpt(QStringLiteral("timeout"),
                                        QStringLiteral("Give up after S seconds (exit status 2)."),
                                        QStringLiteral("S"));
    const QCommandLineOption tokenOpt(QStringLiteral("token"),
                                      QStringLiteral("An operator's token: where the relay has a token "
                                                     "file, \"ims:\", \"csv:\" and \"buf:\" need one."),
                                      QStringLiteral("T"));
    parser.addOptions({cmdOpt, countOpt, csvOpt, timeoutOpt, tokenOpt});
    parser.process(app);

    ClientOptions options;
    const QStringList pos = parser.positionalArguments();
    if (pos.size() > 1) {
        std::fprintf(stderr, "one relay address only\n");
        return 1;
    }
    options.url = QUrl(pos.isEmpty() ? QStringLiteral("ws://127.0.0.1:3005") : pos.first());
    if (!options.url.isValid() ||
        (options.url.scheme() != QLatin1String("ws") && options.url.scheme() != QLatin1String("wss"))) {
        std::fprintf(stderr, "not a WebSocket address: %s\n", qPrintable(pos.value(0)));
        return 1;
    }
    options.commands = parser.values(cmdOpt);
    options.token = parser.value(tokenOpt).toUtf8();
    options.csvPath = parser.value(csvOpt);
    bool ok = true;
    if (parser.isSet(countOpt)) {
        options.count = parser.value(countOpt).toLongLong(&ok);
        if (!ok || options.count < 1) {
            std::fprintf(stderr, "--count needs a positive number\n");
            return 1;
        }
    }
    if (parser.isSet(timeoutOpt)) {
        options.timeoutSec = parser.value(timeoutOpt).toInt(&ok);
        if (!ok || options.timeoutSec < 1) {
            std::fprintf(stderr, "--timeout needs a positive number of seconds\n");
            return 1;
        }
    }

    KorbRdvClient client(options);
    QObject::connect(
        &client, &KorbRdvClient::finished, &app, [](int code) { QCoreApplication::exit(code); },
        Qt::QueuedConnection);
    if (!client.start())
        return 1;
    return app.exec();
}

#include "korb_rdv_client.moc"
