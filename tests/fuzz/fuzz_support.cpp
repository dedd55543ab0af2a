#include "fuzz_support.h"

#include "logger/korb_log.h"
#include "logger/korb_logger_light.h"
#include "src/korb_rdv_decoder.h"
#include "src/korb_rdv_packet.h"
#include "src/korb_rdv_wsserver.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QHash>
#include <QNetworkProxy>
#include <QTemporaryDir>
#include <QWebSocket>

#include <cstdio>
#include <cstdlib>

namespace Fuzz {

namespace {
// A relay that has not delivered by then has lost messages: a finding.
constexpr int DrainLimitMs = 5000;

void dropMessages(QtMsgType, const QMessageLogContext &, const QString &) {}
} // namespace

void setUp()
{
    static int argc = 1;
    static char name[] = "korb_fuzz";
    static char *argv[] = {name, nullptr};
    if (QCoreApplication::instance())
        return;
    new QCoreApplication(argc, argv);
    static QTemporaryDir logs;
    KorbLoggerLight::instance()->setLogDir(logs.path());
    Korb::logThreshold = 0;
    qInstallMessageHandler(dropMessages);
}

void fail(const char *what, const char *file, int line)
{
    std::fprintf(stderr, "fuzz check failed: %s (%s:%d)\n", what, file, line);
    std::abort();
}

uint8_t Input::byte()
{
    return m_pos < m_size ? m_data[m_pos++] : 0;
}

int Input::word()
{
    const int low = byte();
    return low | (byte() << 8);
}

QByteArray Input::take(int n)
{
    const int k = int(qMin<size_t>(size_t(qMax(n, 0)), remaining()));
    const QByteArray bytes(reinterpret_cast<const char *>(m_data + m_pos), k);
    m_pos += size_t(k);
    return bytes;
}

int Sizes::next(int max)
{
    m_state ^= m_state << 13;
    m_state ^= m_state >> 17;
    m_state ^= m_state << 5;
    return 1 + int(m_state % uint32_t(qMax(max, 1)));
}

void PacketSink::sendRdv(const RdvFrame *frame)
{
    packets.append(qHash(Rdv::buildPacket(frame)));
}

void PacketSink::sendRdv(const RdvChannelMap &channels)
{
    packets.append(qHash(Rdv::buildPacket(channels)));
}

void Relay::drain(int binary, int text)
{
    const QDeadlineTimer deadline(DrainLimitMs);
    while ((binaryMessages < binary || texts.size() < text) && !deadline.hasExpired())
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    FUZZ_CHECK(binaryMessages >= binary && texts.size() >= text);
}

Relay &relay()
{
    static Relay r;
    if (r.server)
        return r;
    setUp();
    r.server = new WebSocketServer(nullptr);
    FUZZ_CHECK(r.server->listen(QHostAddress::LocalHost, 0));
    QObject::connect(r.server, &WebSocketServer::connected, [](QWebSocket *socket) { r.peer = socket; });
    r.client = new QWebSocket;
    r.client->setProxy(QNetworkProxy::NoProxy);
    QObject::connect(r.client, &QWebSocket::binaryMessageReceived, [](const QByteArray &message) {
        ++r.binaryMessages;
        FUZZ_CHECK(KorbRdvDecoder::decode(message).ok);
    });
    QObject::connect(r.client, &QWebSocket::textMessageReceived,
                     [](const QString &message) { r.texts.append(message); });
    r.client->open(QUrl(QStringLiteral("ws://127.0.0.1:%1").arg(r.server->serverPort())));
    const QDeadlineTimer deadline(DrainLimitMs);
    while (!(r.peer && r.client->state() == QAbstractSocket::ConnectedState) && !deadline.hasExpired())
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    FUZZ_CHECK(r.peer && r.client->state() == QAbstractSocket::ConnectedState);
    return r;
}

} // namespace Fuzz
