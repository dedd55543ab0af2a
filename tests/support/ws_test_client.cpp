#include "support/ws_test_client.h"

#include "src/korb_rdv_wsserver.h"

#include <QNetworkProxy>
#include <QRandomGenerator>
#include <QSignalSpy>
#include <QTest>
#include <QUrl>

namespace RdvTest {

bool startOnFreePort(WebSocketServer &server)
{
    for (int attempt = 0; attempt < 50; ++attempt) {
        const quint16 port = quint16(QRandomGenerator::global()->bounded(20000, 60000));
        if (server.start(port))
            return true;
    }
    return false;
}

WsTestClient *connectClient(WebSocketServer &server, QObject *parent)
{
    auto *c = new WsTestClient(parent);
    const int before = server.clientCount();
    // The handshake completes on the client before the server has taken it up.
    if (c->open(server.serverPort()) &&
        QTest::qWaitFor([&] { return server.clientCount() == before + 1; }, 5000))
        return c;
    delete c;
    return nullptr;
}

WsTestClient::WsTestClient(QObject *parent) : QObject(parent)
{
    m_socket.setProxy(QNetworkProxy::NoProxy);
    connect(&m_socket, &QWebSocket::textMessageReceived, this, [this](const QString &t) { texts << t; });
    connect(&m_socket, &QWebSocket::binaryMessageReceived, this, [this](const QByteArray &b) {
        if (keepBinaries)
            binaries << b;
        ++binaryCount;
        binaryBytes += b.size();
    });
    connect(&m_socket, &QWebSocket::disconnected, this, [this] {
        disconnected = true;
        closeCode = int(m_socket.closeCode());
    });
}

bool WsTestClient::open(quint16 port, int timeoutMs)
{
    QSignalSpy spy(&m_socket, &QWebSocket::connected);
    m_socket.open(QUrl(QStringLiteral("ws://127.0.0.1:%1").arg(port)));
    return spy.count() > 0 || spy.wait(timeoutMs);
}

bool WsTestClient::isConnected() const
{
    return m_socket.state() == QAbstractSocket::ConnectedState;
}

QWebSocket *socketArg(const QList<QVariant> &args)
{
    const QVariant &v = args.at(0);
    return v.userType() == qMetaTypeId<QWebSocket *>() ? *static_cast<QWebSocket *const *>(v.constData())
                                                       : nullptr;
}

} // namespace RdvTest
