#include "support/view_fake_relay.h"

#include <QTimer>
#include <QWebSocket>

ViewFakeRelay::ViewFakeRelay(const QList<QByteArray> &script, QObject *parent)
    : QObject(parent),
      m_server(new QWebSocketServer(QStringLiteral("fake"), QWebSocketServer::NonSecureMode, this)),
      m_timer(new QTimer(this)), m_script(script)
{
    connect(m_server, &QWebSocketServer::newConnection, this, &ViewFakeRelay::onNewConnection);
    connect(m_timer, &QTimer::timeout, this, &ViewFakeRelay::onTick);
    m_timer->setInterval(10);
}

bool ViewFakeRelay::listen()
{
    return m_server->listen(QHostAddress::LocalHost, 0);
}

QString ViewFakeRelay::url() const
{
    return QStringLiteral("ws://127.0.0.1:%1").arg(m_server->serverPort());
}

void ViewFakeRelay::onNewConnection()
{
    while (QWebSocket *ws = m_server->nextPendingConnection()) {
        ws->setParent(this);
        m_clients.append(ws);
        connect(ws, &QWebSocket::textMessageReceived, this, [this, ws](const QString &msg) {
            if (msg.startsWith(QLatin1String("ims:")))
                ws->sendTextMessage(msg + QStringLiteral(" OK"));
        });
        connect(ws, &QWebSocket::disconnected, this, [this, ws] {
            m_clients.removeAll(ws);
            ws->deleteLater();
        });
    }
    if (!m_script.isEmpty())
        m_timer->start();
}

void ViewFakeRelay::onTick()
{
    const QByteArray &packet = m_script.at(m_next);
    m_next = (m_next + 1) % m_script.size();
    for (QWebSocket *ws : qAsConst(m_clients))
        ws->sendBinaryMessage(packet);
}
