#include "src/korb_rdv_wsserver.h"

#include "logger/korb_log.h"
#include "src/korb_rdv_client_link.h"
#include "src/korb_rdv_command.h"
#include "src/korb_rdv_http.h"
#include "src/korb_rdv_http_service.h"
#include "src/korb_rdv_packet.h"
#include "src/korb_rdv_settings.h"
#include "src/korb_rdv_ws_client.h"

#include <QCoreApplication>
#include <QSslSocket>

int WebSocketServer::s_broadcastCount = 0;

namespace {
bool overTls(KorbRdvClientLink *link)
{
    return qobject_cast<QSslSocket *>(link->socket()) != nullptr;
}

// Whether a value can be sent: text or bytes; anything else is reported.
bool sendable(const QObject *server, const QVariant &data)
{
    if (data.userType() == QMetaType::QString || data.userType() == QMetaType::QByteArray)
        return true;
    KLOGF(server, 0,
          QObject::tr("тип данных '%1' (%2) не поддерживается")
              .arg(QString::fromLatin1(data.typeName()))
              .arg(data.userType()));
    return false;
}
} // namespace

WebSocketServer::WebSocketServer(QObject *parent, quint16 port)
    : QWebSocketServer(QStringLiteral("rdv"), QWebSocketServer::NonSecureMode, parent),
      m_port(port ? port : Korb::DefaultPort),
      m_listener(new KorbRdvWsListener(this, MaxClientReplyBacklog, ClientReadBufferSize)),
      m_fanOut(new KorbRdvFanOut(this, m_clients))
{
    addListener(m_listener);
    setHandshakeTimeout(KorbRdvWsListener::RequestTimeoutMs);
    connect(this, &QWebSocketServer::newConnection, this, &WebSocketServer::onNewConnection);
    connect(m_fanOut, &KorbRdvFanOut::overQueued, this, &WebSocketServer::cutOff);
    connect(m_fanOut, &KorbRdvFanOut::sent, this, &WebSocketServer::binaryBroadcast);
    // Qt's handshake refused the upgrade.
    connect(this, &QWebSocketServer::serverError, this,
            [this] { ++m_refusals[KorbRdvWsListener::Handshake]; });
}

WebSocketServer::~WebSocketServer()
{
    // Clients in the table or on their way out go with the server, without
    // signals to it; those in the handshake go with their listeners.
    for (QWebSocket *socket : findChildren<QWebSocket *>(QString(), Qt::FindDirectChildrenOnly)) {
        socket->disconnect(this);
        delete socket;
    }
    qDeleteAll(m_listeners);
}

bool WebSocketServer::start(quint16 port)
{
    if (isListening())
        return true;
    m_port = port ? port : m_port;
    if (!listen(QHostAddress::Any, m_port))
        return false;
    QCoreApplication::processEvents(QEventLoop::ExcludeUserInputEvents);
    return true;
}

void WebSocketServer::stop()
{
    if (!isListening())
        return;
    close();
    if (m_player)
        m_player->pause();
    for (QWebSocket *socket : m_clients.keys())
        socket->close();
}

void WebSocketServer::close()
{
    for (KorbRdvWsListener *listener : qAsConst(m_listeners))
        listener->close();
}

void WebSocketServer::addListener(KorbRdvWsListener *listener)
{
    listener->setParent(this);
    m_listeners.append(listener);
    listener->setMaxHandshakes(m_maxClients);
    connect(listener, &KorbRdvWsListener::request, this, &WebSocketServer::onRequest);
    connect(listener, &KorbRdvWsListener::refused, this,
            [this](KorbRdvWsListener::Refusal reason) { ++m_refusals[reason]; });
}

void WebSocketServer::onRequest(KorbRdvClientLink *link, const KorbRdvHttpRequest &request)
{
    QTcpSocket *const socket = link->socket();
    if (!request.isWebSocketUpgrade()) {
        KorbRdvWsListener::respond(socket,
                                   m_http ? m_http->answer(request, overTls(link)) : Korb::httpResponse(404));
        return;
    }
    if (!m_access.originAllowed(request)) {
        KLOGF(this, 1,
              tr("WebSocket с %1 отклонён: страница %2 не из разрешённых источников (-origins=)")
                  .arg(socket->peerAddress().toString(), QString::fromLatin1(request.header("origin"))));
        ++m_refusals[KorbRdvWsListener::Origin];
        KorbRdvWsListener::respond(socket, Korb::httpResponse(403));
        return;
    }
    link->setMayCommand(m_access.roleOf(request) == KorbRdvAccess::Operator);
    KLOG(this, 2,
         tr("клиент %1:%2 %3: %4")
             .arg(socket->peerAddress().toString())
             .arg(socket->peerPort())
             .arg(request.loggedTarget(), link->mayCommand() ? tr("оператор") : tr("зритель")));
    handleConnection(socket);
}

void WebSocketServer::setMaxClients(int clients)
{
    m_maxClients = qMax(1, clients);
    for (KorbRdvWsListener *listener : qAsConst(m_listeners))
        listener->setMaxHandshakes(m_maxClients);
}

void WebSocketServer::setExternalConsumer(const QObject *consumer, bool consumes)
{
    const bool had = consumerCount() > 0;
    if (consumes)
        m_externalConsumers.insert(consumer);
    else
        m_externalConsumers.remove(consumer);
    if (had != (consumerCount() > 0))
        follow(!had); // a broker link is a consumer like a client
}

void WebSocketServer::onNewConnection()
{
    QWebSocket *socket = nextPendingConnection();
    if (!socket)
        return;
    // Owned by the server: sockets released with deleteLater that the event
    // loop never reaches again still go when the server goes.
    socket->setParent(this);
    KorbRdvClientLink *link = nullptr;
    for (KorbRdvWsListener *listener : qAsConst(m_listeners))
        link = link ? link : listener->takeHandshake(socket);
    if (!link || m_clients.size() >= m_maxClients) {
        KLOGF(this, 1, tr("клиент отклонён: подключено предельное число клиентов (%1)").arg(m_maxClients));
        ++m_refusals[KorbRdvWsListener::Limit];
        connect(socket, &QWebSocket::disconnected, socket, &QObject::deleteLater);
        // Closing lingers until the client has the close frame (see KorbRdvClientLink).
        socket->close(CloseCodeTryAgainLater, QStringLiteral("too many clients"));
        return;
    }
    socket->setMaxAllowedIncomingMessageSize(MaxClientMessageSize);
    socket->setMaxAllowedIncomingFrameSize(MaxClientMessageSize);
    connect(socket, &QWebSocket::textMessageReceived, this, &WebSocketServer::onReadyReadT);
    connect(socket, &QWebSocket::binaryMessageReceived, this, &WebSocketServer::onReadyReadB);
    connect(socket, &QWebSocket::disconnected, this, &WebSocketServer::onDisconnected);
    auto *client = new KorbRdvWsClient(this, socket, link, m_fanOut->newest());
    connect(client, &KorbRdvWsClient::ready, m_fanOut, [this, socket] { m_fanOut->ready(socket); });
    connect(client, &KorbRdvWsClient::repliesUnread, this, [this, client] { onRepliesUnread(client); });
    m_clients.insert(socket, client);
    emit connected(socket);
    KTRACE << "client" << client->descriptor() << socket->peerAddress().toString() << socket->peerPort()
           << (client->mayCommand() ? "operator" : "viewer") << "clients:" << m_clients.size();
    // A first listener hears the recording from its start.
    follow(consumerCount() == 1);
}

int WebSocketServer::tlsClientCount() const
{
    int n = 0;
    for (const KorbRdvWsClient *client : m_clients)
        n += overTls(client->link());
    return n;
}

void WebSocketServer::onDisconnected()
{
    QWebSocket *socket = qobject_cast<QWebSocket *>(QObject::sender());
    if (!socket)
        return;
    const qint64 replaced = m_clients.contains(socket) ? m_clients.value(socket)->replaced() : 0;
    dropFromTable(socket);
    socket->deleteLater();
    emit disconnected(socket);
    KTRACE << "client gone" << quint64(quintptr(socket)) << "replaced packets:" << replaced
           << "clients:" << m_clients.size();
}

bool WebSocketServer::removeClient(quint64 descriptor)
{
    QWebSocket *socket = reinterpret_cast<QWebSocket *>(quintptr(descriptor));
    if (!m_clients.contains(socket)) {
        if (Korb::logThreshold > 3)
            KLOG(this, 0, tr("не найден клиент с дескриптором %1").arg(descriptor));
        return false;
    }
    delete m_clients.take(socket);
    socket->close(QWebSocketProtocol::CloseCodeNormal, QString());
    socket->deleteLater();
    // Deliberately "at most one": the last remaining listener does not keep
    // playback going after an explicit removal; a broker link still does.
    if (m_clients.size() <= 1 && m_externalConsumers.isEmpty() && m_player)
        m_player->pause();
    return true;
}

void WebSocketServer::dropFromTable(QWebSocket *socket)
{
    delete m_clients.take(socket);
    follow(false);
}

void WebSocketServer::onRepliesUnread(KorbRdvWsClient *client)
{
    KLOGF(this, 1,
          tr("клиент %1 не читает ответы (в очереди более %2 байт): отключён с кодом 1008")
              .arg(client->descriptor())
              .arg(MaxClientReplyBacklog));
    QWebSocket *const socket = client->socket();
    dropFromTable(socket);
    socket->close(QWebSocketProtocol::CloseCodePolicyViolated, QStringLiteral("replies not read"));
}

void WebSocketServer::cutOff(KorbRdvWsClient *client)
{
    KLOGF(this, 1,
          tr("клиент %1 отключён: очереди клиентов превысили %2 байт, а он отстаёт дольше всех")
              .arg(client->descriptor())
              .arg(m_fanOut->maxQueuedBytes()));
    QWebSocket *const socket = client->socket();
    dropFromTable(socket);
    socket->abort(); // it does not read, so a close frame would only wait behind the rest
}

bool WebSocketServer::sendClient(quint64 descriptor, const QVariant &data)
{
    QWebSocket *socket = reinterpret_cast<QWebSocket *>(quintptr(descriptor));
    if (!m_clients.contains(socket)) {
        KLOG(this, 0, tr("не найден клиент с дескриптором %1").arg(descriptor));
        return false;
    }
    if (!sendable(this, data))
        return false;
    // Bytes for this client alone are no broadcast: they count against its reply bound.
    if (data.userType() == QMetaType::QString)
        socket->sendTextMessage(data.toString());
    else
        socket->sendBinaryMessage(data.toByteArray());
    return true;
}

void WebSocketServer::sendAllClients(const QVariant &data)
{
    if (!sendable(this, data))
        return;
    if (data.userType() == QMetaType::QByteArray) {
        m_fanOut->send(data.toByteArray());
        return;
    }
    for (QWebSocket *socket : m_clients.keys())
        socket->sendTextMessage(data.toString());
}

void WebSocketServer::sendRdv(const RdvFrame *frame)
{
    if (!frame || consumerCount() == 0)
        return;
    ++s_broadcastCount;
    m_fanOut->send(Rdv::buildPacket(frame), m_ingestNs);
}

void WebSocketServer::sendRdv(const RdvChannelMap &channels)
{
    if (consumerCount() == 0)
        return;
    bool oversize = false;
    const QByteArray packet = Rdv::buildPacket(channels, &oversize);
    if (oversize)
        KTRACE << "length Oversize quint16";
    ++s_broadcastCount;
    m_fanOut->send(packet, m_ingestNs);
}

void WebSocketServer::sendPacket(const QByteArray &packet)
{
    m_fanOut->send(packet, m_ingestNs);
}

void WebSocketServer::markIngest()
{
    m_ingestNs = KorbRdvHistogram::clockNs();
}

void WebSocketServer::onReadyReadT(const QString &message)
{
    KorbRdvWsClient *client = clientOf(QObject::sender());
    if (!client)
        return;
    RdvClientCommand command = RdvClientCommand::parse(message);
    if (command.action != RdvClientCommand::Refuse && !client->mayCommand()) {
        KLOGF(this, 1, tr("клиент %1 - зритель: команды не принимаются").arg(client->descriptor()));
        command = RdvClientCommand::denied(message);
    }
    // One client's flood of commands costs about a console line a second.
    const int held = message.isEmpty() ? -1 : client->admitLine();
    if (!message.isEmpty())
        emit readyRead(QVariant(message), client->socket());
    if (command.action == RdvClientCommand::Forward) {
        emit runCmd(command.word);
    } else if (command.action == RdvClientCommand::SetInterval) {
        Korb::sendIntervalMs = command.intervalMs;
        if (m_player)
            m_player->play(false);
        emit runCmd(command.intervalMs);
    }
    if (!command.reply.isEmpty())
        client->socket()->sendTextMessage(command.reply);
    if (held >= 0)
        KTRACE << "cmd: " << message.left(TracedMessageChars)
               << (command.action == RdvClientCommand::Refuse ? command.reply : QString())
               << KorbRdvWsClient::heldBackNote(held).constData();
}

void WebSocketServer::onReadyReadB(const QByteArray &message)
{
    KorbRdvWsClient *client = clientOf(QObject::sender());
    if (!client)
        return;
    client->socket()->sendTextMessage(QStringLiteral("@Err: binary command no supported"));
    const int held = client->admitLine();
    if (held >= 0)
        KTRACE << "binary message of" << message.size() << "bytes refused"
               << KorbRdvWsClient::heldBackNote(held).constData();
}

bool WebSocketServer::setFileNm(const QString &name)
{
    // A file that does not exist changes nothing.
    const bool loaded = m_player && m_player->load(name);
    if (loaded)
        follow(true);
    return loaded;
}

void WebSocketServer::follow(bool first)
{
    if (m_player)
        m_player->follow(consumerCount(), first);
}
