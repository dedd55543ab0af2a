// Client messages through the parser and the server's own slots: each gets the
// reply the parse promised, and an accepted interval takes effect.
#include "fuzz_support.h"

#include "src/korb_rdv_command.h"
#include "src/korb_rdv_settings.h"
#include "src/korb_rdv_wsserver.h"

#include <QCoreApplication>
#include <QDeadlineTimer>

namespace {
QStringList g_replies;

// Runs the event loop until `done`; what has not come in time is lost.
template <typename Done> void until(Done done)
{
    for (const QDeadlineTimer deadline(5000); !done() && !deadline.hasExpired();)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    FUZZ_CHECK(done());
}

// The server's end of its one client, connected on first use.
QWebSocket *peer()
{
    static WebSocketServer server(nullptr);
    static QWebSocket client;
    static QWebSocket *peer = nullptr;
    if (!peer) {
        FUZZ_CHECK(server.listen(QHostAddress::LocalHost, 0));
        QObject::connect(&server, &WebSocketServer::connected, [](QWebSocket *socket) { peer = socket; });
        QObject::connect(&client, &QWebSocket::textMessageReceived,
                         [](const QString &text) { g_replies << text; });
        client.open(QUrl(QStringLiteral("ws://127.0.0.1:%1").arg(server.serverPort())));
        until([] { return peer && client.isValid(); });
    }
    return peer;
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Fuzz::setUp();
    Fuzz::Input in{data, size};
    const bool binary = in.byte() & 1;
    const QByteArray bytes = in.take(size);
    const QString message = QString::fromUtf8(bytes);
    const RdvClientCommand command = RdvClientCommand::parse(message);
    const bool forward = command.action == RdvClientCommand::Forward;
    FUZZ_CHECK(forward == (command.word == QLatin1String("csv") || command.word == QLatin1String("buf")));
    FUZZ_CHECK(forward == command.reply.isEmpty());
    if (command.action == RdvClientCommand::SetInterval)
        FUZZ_CHECK(command.intervalMs > 1 && command.reply == message + QLatin1String(" OK"));
    if (command.action == RdvClientCommand::Refuse)
        FUZZ_CHECK(command.reply.startsWith(QLatin1String("Err: ")));
    binary ? emit peer()->binaryMessageReceived(bytes) : emit peer()->textMessageReceived(message);
    if (binary || !forward) {
        until([] { return !g_replies.isEmpty(); });
        FUZZ_CHECK(g_replies.takeFirst() ==
                   (binary ? QStringLiteral("@Err: binary command no supported") : command.reply));
    }
    FUZZ_CHECK(binary || command.action != RdvClientCommand::SetInterval ||
               Korb::sendIntervalMs == command.intervalMs);
    return 0;
}
