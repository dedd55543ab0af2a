#include "src/korb_rdv_wsserver.h"

#include "logger/korb_log.h"
#include "src/korb_rdv_client_socket.h"
#include "src/korb_rdv_command.h"
#include "src/korb_rdv_packet.h"
#include "src/korb_rdv_scanner.h"
#include "src/korb_rdv_settings.h"
#include "src/korb_rdv_ws_listener.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QTimer>
#include <QTimerEvent>
#include <QVector>
#include <QWebSocket>

#include <algorithm>

namespace {

// Time of the last client connection and of the last playback (re)start.
QElapsedTimer g_connectionClock;
// Binary messages handed to the broadcast.
int g_broadcastCount = 0;

constexpr double BytesPerMb = 1024.0 * 1024.0;

// A client's descriptor in messages and in sendClient/removeClient.
quint64 descriptorOf(const QWebSocket *socket)
{
    return quint64(quintptr(socket));
}

// Tail of a folded console line: how many were held back before it.
QByteArray heldBackNote(int held)
{
    return held > 0 ? QByteArrayLiteral("held back: ") + QByteArray::number(held) : QByteArray();
}

} // namespace

WebSocketServer::WebSocketServer(QObject *parent, quint16 port)
    : QWebSocketServer(QStringLiteral("rdv"), QWebSocketServer::NonSecureMode, parent),
      m_port(port ? port : Korb::DefaultPort), m_listener(new KorbRdvWsListener(this, MaxClientReplyBacklog))
{
    connect(this, &QWebSocketServer::newConnection, this, &WebSocketServer::onNewConnection);
    connect(m_listener, &KorbRdvWsListener::accepted, this, &WebSocketServer::onAccepted);
}

WebSocketServer::~WebSocketServer()
{
    stopPlaybackTimer();
    for (const Client &client : qAsConst(m_clients))
        client.tcp->socket()->disconnect(this);
    m_clients.clear();
    // Every client, in the table or on its way out, goes with the server;
    // their signals must not reach a server that is half destroyed. The
    // sockets still in the handshake go with their listeners.
    const auto sockets = findChildren<QWebSocket *>(QString(), Qt::FindDirectChildrenOnly);
    for (QWebSocket *socket : sockets) {
        socket->disconnect(this);
        delete socket;
    }
    qDeleteAll(findChildren<KorbRdvWsListener *>(QString(), Qt::FindDirectChildrenOnly));
}

bool WebSocketServer::start(quint16 port)
{
    if (isListening())
        return true;
    if (port)
        m_port = port;
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
    stopPlaybackTimer();
    const auto clients = m_clients.keys();
    for (QWebSocket *socket : clients)
        socket->close();
}

quint16 WebSocketServer::port() const
{
    return m_port;
}

bool WebSocketServer::listen(const QHostAddress &address, quint16 port)
{
    return m_listener->listen(address, port);
}

bool WebSocketServer::isListening() const
{
    return m_listener->isListening();
}

quint16 WebSocketServer::serverPort() const
{
    return m_listener->serverPort();
}

void WebSocketServer::close()
{
    const auto listeners = findChildren<KorbRdvWsListener *>(QString(), Qt::FindDirectChildrenOnly);
    for (KorbRdvWsListener *listener : listeners)
        listener->close();
}

QString WebSocketServer::errorString() const
{
    return m_listener->errorString();
}

int WebSocketServer::broadcastCount()
{
    return g_broadcastCount;
}

int WebSocketServer::clientCount() const
{
    return m_clients.size();
}

int WebSocketServer::consumerCount() const
{
    return m_clients.size() + m_externalConsumers;
}

void WebSocketServer::setExternalConsumers(int count)
{
    const bool had = consumerCount() > 0;
    m_externalConsumers = qMax(0, count);
    // Playback runs while anybody takes its packets, clients or not.
    if (!m_file.isOpen() || had == (consumerCount() > 0))
        return;
    if (had)
        stopPlaybackTimer();
    else
        restartPlayback();
}

// ---------------------------------------------------------------- client table

void WebSocketServer::addListener(KorbRdvWsListener *listener)
{
    listener->setParent(this);
    connect(listener, &KorbRdvWsListener::accepted, this, &WebSocketServer::onAccepted);
}

void WebSocketServer::onAccepted(KorbRdvClientLink *link)
{
    QTcpSocket *tcp = link->socket();
    m_handshakes.removeAll(QPointer<QTcpSocket>());
    if (m_handshakes.size() >= m_maxClients) {
        // Before the handshake there is no WebSocket to say why.
        KLOGF(this, 1,
              tr("соединение отклонено: %1 соединений ещё не установили WebSocket").arg(m_maxClients));
        tcp->abort();
        tcp->deleteLater();
        return;
    }
    tcp->setReadBufferSize(ClientReadBufferSize);
    m_handshakes.append(tcp);
    handleConnection(tcp);
}

KorbRdvClientLink *WebSocketServer::takeHandshake(const QWebSocket *socket)
{
    // The WebSocket does not say which socket it took over; the two ends'
    // addresses and ports do.
    for (int i = 0; i < m_handshakes.size(); ++i) {
        QTcpSocket *tcp = m_handshakes.at(i);
        if (tcp && tcp->peerPort() == socket->peerPort() && tcp->peerAddress() == socket->peerAddress() &&
            tcp->localPort() == socket->localPort()) {
            m_handshakes.removeAt(i);
            return dynamic_cast<KorbRdvClientLink *>(tcp);
        }
    }
    return nullptr;
}

void WebSocketServer::onNewConnection()
{
    g_connectionClock.restart();
    QWebSocket *socket = nextPendingConnection();
    if (!socket)
        return;
    // Owned by the server: sockets released with deleteLater that the event
    // loop never reaches again still go when the server goes.
    socket->setParent(this);
    KorbRdvClientLink *tcp = takeHandshake(socket);
    if (!tcp || m_clients.size() >= m_maxClients) {
        KLOGF(this, 1, tr("клиент отклонён: подключено предельное число клиентов (%1)").arg(m_maxClients));
        connect(socket, &QWebSocket::disconnected, socket, &QObject::deleteLater);
        dismiss(socket, CloseCodeTryAgainLater, QStringLiteral("too many clients"));
        return;
    }
    socket->setMaxAllowedIncomingMessageSize(MaxClientMessageSize);
    socket->setMaxAllowedIncomingFrameSize(MaxClientMessageSize);
    connect(socket, &QWebSocket::textMessageReceived, this, &WebSocketServer::onReadyReadT);
    connect(socket, &QWebSocket::binaryMessageReceived, this, &WebSocketServer::onReadyReadB);
    connect(socket, &QWebSocket::disconnected, this, &WebSocketServer::onDisconnected);
    tcp->onDrained(this, [this, socket] { onClientDrained(socket); });
    tcp->onReplyBoundExceeded(this,
                              [this, guard = QPointer<QWebSocket>(socket)] { onReplyBoundExceeded(guard); });
    Client &client = m_clients[socket];
    client.tcp = tcp;
    client.seq = m_packetSeq; // a newcomer starts with the next packet
    emit connected(socket);
    KTRACE << "client" << descriptorOf(socket) << socket->peerAddress().toString() << socket->peerPort()
           << "clients:" << m_clients.size();
    if (m_file.isOpen() && consumerCount() <= 1)
        restartPlayback();
}

void WebSocketServer::onDisconnected()
{
    QWebSocket *socket = qobject_cast<QWebSocket *>(sender());
    if (!socket)
        return;
    const qint64 replaced = m_clients.value(socket).replaced;
    m_clients.remove(socket);
    socket->deleteLater();
    emit disconnected(socket);
    KTRACE << "client gone" << descriptorOf(socket) << "replaced packets:" << replaced
           << "clients:" << m_clients.size();
    if (consumerCount() == 0)
        stopPlaybackTimer();
}

bool WebSocketServer::removeClient(quint64 descriptor)
{
    QWebSocket *key = reinterpret_cast<QWebSocket *>(quintptr(descriptor));
    if (!m_clients.contains(key)) {
        if (Korb::logThreshold > 3)
            KLOG(this, 0, tr("не найден клиент с дескриптором %1").arg(descriptor));
        return false;
    }
    m_clients.remove(key);
    key->close(QWebSocketProtocol::CloseCodeNormal, QString());
    key->deleteLater();
    // Deliberately "at most one": the last remaining listener does not keep
    // playback going after an explicit removal; a broker link still does.
    if (m_clients.size() <= 1 && m_externalConsumers == 0)
        stopPlaybackTimer();
    return true;
}

void WebSocketServer::dismiss(QWebSocket *socket, QWebSocketProtocol::CloseCode code, const QString &reason)
{
    socket->close(code, reason);
    // One that does not read the close in time is cut off, so its buffers go.
    QTimer::singleShot(CloseGraceMs, socket, &QWebSocket::abort);
}

void WebSocketServer::dropFromTable(QWebSocket *socket)
{
    m_clients.remove(socket);
    if (consumerCount() == 0)
        stopPlaybackTimer();
}

void WebSocketServer::onReplyBoundExceeded(QWebSocket *socket)
{
    if (!socket || !m_clients.contains(socket))
        return;
    KLOGF(this, 1,
          tr("клиент %1 не читает ответы (в очереди более %2 байт): отключён с кодом 1008")
              .arg(descriptorOf(socket))
              .arg(MaxClientReplyBacklog));
    dropFromTable(socket);
    dismiss(socket, QWebSocketProtocol::CloseCodePolicyViolated, QStringLiteral("replies not read"));
}

void WebSocketServer::cutOff(QWebSocket *socket)
{
    KLOGF(this, 1,
          tr("клиент %1 отключён: очереди клиентов превысили %2 байт, а он отстаёт дольше всех")
              .arg(descriptorOf(socket))
              .arg(m_maxQueuedBytes));
    dropFromTable(socket);
    // It does not read, so a close frame would only wait behind the rest.
    socket->abort();
}

// ---------------------------------------------------------------- sending

bool WebSocketServer::sendClient(quint64 descriptor, const QVariant &data)
{
    QWebSocket *socket = reinterpret_cast<QWebSocket *>(quintptr(descriptor));
    if (!m_clients.contains(socket)) {
        KLOG(this, 0, tr("не найден клиент с дескриптором %1").arg(descriptor));
        return false;
    }
    switch (data.userType()) {
    case QMetaType::QString:
        socket->sendTextMessage(data.toString());
        return true;
    case QMetaType::QByteArray:
        // Meant for this client alone: it counts against its reply bound.
        socket->sendBinaryMessage(data.toByteArray());
        return true;
    default:
        KLOGF(this, 0,
              tr("тип данных '%1' (%2) не поддерживается")
                  .arg(QString::fromLatin1(data.typeName()))
                  .arg(data.userType()));
        return false;
    }
}

void WebSocketServer::sendAllClients(const QVariant &data)
{
    switch (data.userType()) {
    case QMetaType::QString: {
        const QString text = data.toString();
        const auto clients = m_clients.keys();
        for (QWebSocket *socket : clients)
            socket->sendTextMessage(text);
        break;
    }
    case QMetaType::QByteArray:
        broadcastBinary(data.toByteArray());
        break;
    default:
        KLOGF(this, 0,
              tr("тип данных '%1' (%2) не поддерживается")
                  .arg(QString::fromLatin1(data.typeName()))
                  .arg(data.userType()));
        break;
    }
}

// The newest packet wins: it is framed once, and a pass hands it to every
// client in table order, in slices of bounded time. A packet that arrives
// during a pass goes, after the pass's own, to the clients not yet visited;
// the ones visited before it get it when the pass starts over from the
// first client. A client busy writing keeps only the newest one waiting.
void WebSocketServer::broadcastBinary(const QByteArray &packet)
{
    emit binaryBroadcast(packet);
    m_packetFrame = Rdv::wsBinaryFrame(packet);
    ++m_packetSeq;
    if (!m_passActive) {
        m_passActive = true;
        m_passFrame = m_packetFrame;
        m_passSeq = m_packetSeq;
        m_passLast = nullptr;
    }
    // The first slice goes at once; a queued slice carries on by itself.
    if (!m_sliceQueued)
        runSlice();
}

void WebSocketServer::queueSlice()
{
    if (m_sliceQueued)
        return;
    m_sliceQueued = true;
    QMetaObject::invokeMethod(this, &WebSocketServer::runSlice, Qt::QueuedConnection);
}

void WebSocketServer::runSlice()
{
    m_sliceQueued = false;
    QElapsedTimer clock;
    clock.start();
    // Clients that have caught up take their waiting packet first.
    while (!m_ready.isEmpty()) {
        const auto it = m_clients.find(m_ready.takeFirst());
        if (it != m_clients.end())
            writeWaiting(*it);
        if (clock.nsecsElapsed() >= FanOutSliceNs) {
            queueSlice();
            return;
        }
    }
    while (m_passActive) {
        // Looked up by key each time: the table may change between slices.
        const auto it = m_clients.upperBound(m_passLast);
        if (it == m_clients.end()) {
            endPass();
            continue;
        }
        m_passLast = it.key();
        handOut(it.key(), *it);
        if (clock.nsecsElapsed() >= FanOutSliceNs) {
            queueSlice();
            return;
        }
    }
}

void WebSocketServer::endPass()
{
    if (m_passSeq != m_packetSeq) {
        // A newer packet came during the pass: from the first client again,
        // passing over the ones that have it already.
        m_passFrame = m_packetFrame;
        m_passSeq = m_packetSeq;
        m_passLast = nullptr;
        return;
    }
    m_passActive = false;
    enforceQueuedBound();
}

void WebSocketServer::handOut(const QWebSocket *socket, Client &client)
{
    if (client.tcp->socket()->state() != QAbstractSocket::ConnectedState) {
        client.seq = m_packetSeq;
        return;
    }
    // The packet of the pass first, so that no client misses it for coming
    // late in the table; then a newer one that came during the pass.
    if (client.seq < m_passSeq)
        give(socket, client, m_passFrame, m_passSeq);
    if (client.seq < m_packetSeq)
        give(socket, client, m_packetFrame, m_packetSeq);
}

void WebSocketServer::give(const QWebSocket *socket, Client &client, const QByteArray &frame, quint64 seq)
{
    client.seq = seq;
    if (!client.waiting.isEmpty()) {
        ++client.replaced;
        ++m_replacedPackets;
        if (!client.behind) {
            client.behind = true;
            KLOGF(this, 1,
                  tr("клиент %1 не успевает читать: ожидающие пакеты заменяются более новыми")
                      .arg(descriptorOf(socket)));
        }
    }
    if (client.tcp->idle()) {
        client.waiting.clear();
        client.tcp->writePacket(frame);
    } else {
        client.waiting = frame;
    }
}

void WebSocketServer::writeWaiting(Client &client)
{
    if (client.waiting.isEmpty() || !client.tcp->idle() ||
        client.tcp->socket()->state() != QAbstractSocket::ConnectedState)
        return;
    client.tcp->writePacket(client.waiting);
    client.waiting.clear();
}

void WebSocketServer::onClientDrained(QWebSocket *socket)
{
    const auto it = m_clients.find(socket);
    if (it == m_clients.end())
        return;
    if (it->waiting.isEmpty()) {
        it->behind = false;
        return;
    }
    // Written from the next slice, never from inside the socket's own signal.
    m_ready.append(socket);
    queueSlice();
}

// Furthest behind is the client whose queue started to fill the earliest and
// has not emptied since: it has gone longest without taking anything.
void WebSocketServer::enforceQueuedBound()
{
    qint64 total = 0;
    QVector<QPair<qint64, QWebSocket *>> behind;
    for (auto it = m_clients.cbegin(); it != m_clients.cend(); ++it) {
        const qint64 queued = it->tcp->bytesToWrite();
        total += queued;
        if (queued > 0)
            behind.append({it->tcp->behindSince(), it.key()});
    }
    if (total <= m_maxQueuedBytes)
        return;
    std::sort(behind.begin(), behind.end());
    for (const auto &b : qAsConst(behind)) {
        if (total <= m_maxQueuedBytes)
            break;
        total -= m_clients.value(b.second).tcp->bytesToWrite();
        cutOff(b.second);
    }
}

void WebSocketServer::sendRdv(const RdvFrame *frame)
{
    if (!frame || consumerCount() == 0)
        return;
    const QByteArray packet = Rdv::buildPacket(frame);
    m_lastPacketSize = packet.size();
    ++g_broadcastCount;
    sendAllClients(packet);
}

void WebSocketServer::sendRdv(const RdvChannelMap &channels)
{
    if (consumerCount() == 0)
        return;
    bool oversize = false;
    const QByteArray packet = Rdv::buildPacket(channels, &oversize);
    if (oversize)
        KTRACE << "length Oversize quint16";
    m_lastPacketSize = packet.size();
    ++g_broadcastCount;
    sendAllClients(packet);
}

// ---------------------------------------------------------------- client commands

int WebSocketServer::LineFold::admit()
{
    if (last.isValid() && last.elapsed() < ClientLineIntervalMs) {
        ++held;
        return -1;
    }
    last.start();
    const int before = held;
    held = 0;
    return before;
}

void WebSocketServer::onReadyReadT(const QString &message)
{
    QWebSocket *socket = qobject_cast<QWebSocket *>(sender());
    if (!socket)
        return;
    const auto client = m_clients.find(socket);
    if (client == m_clients.end())
        return; // on its way out
    const RdvClientCommand command = RdvClientCommand::parse(message);
    // One client's flood of commands costs about a console line a second.
    const int held = message.isEmpty() ? -1 : client->lines.admit();
    if (!message.isEmpty())
        emit readyRead(QVariant(message), socket);
    switch (command.action) {
    case RdvClientCommand::Forward:
        emit runCmd(command.word);
        break;
    case RdvClientCommand::SetInterval:
        Korb::sendIntervalMs = command.intervalMs;
        if (m_file.isOpen())
            restartPlayback();
        emit runCmd(command.intervalMs);
        socket->sendTextMessage(command.reply);
        break;
    case RdvClientCommand::Refuse:
        socket->sendTextMessage(command.reply);
        break;
    }
    if (held >= 0)
        KTRACE << "cmd: " << message.left(TracedMessageChars)
               << (command.action == RdvClientCommand::Refuse ? command.reply : QString())
               << heldBackNote(held).constData();
}

void WebSocketServer::onReadyReadB(const QByteArray &message)
{
    QWebSocket *socket = qobject_cast<QWebSocket *>(sender());
    if (!socket)
        return;
    const auto client = m_clients.find(socket);
    if (client == m_clients.end())
        return;
    socket->sendTextMessage(QStringLiteral("@Err: binary command no supported"));
    const int held = client->lines.admit();
    if (held >= 0)
        KTRACE << "binary message of" << message.size() << "bytes refused" << heldBackNote(held).constData();
}

// ---------------------------------------------------------------- playback

bool WebSocketServer::setFileNm(const QString &name)
{
    if (!QFileInfo::exists(name))
        return false;
    if (m_file.isOpen()) {
        stopPlaybackTimer();
        m_file.close();
    }
    m_file.setFileName(name);
    if (!m_file.open(QIODevice::ReadOnly)) {
        KTRACE << "file no open ro mode" << name;
        return false;
    }
    const qint64 size = m_file.size();
    const int limit = Korb::maxPlaybackFileSize;
    if (size > limit || limit <= 0) {
        KTRACE << "file size >" << limit << name;
        m_file.close();
        return false;
    }
    // calloc: the zero pages beyond the file are never touched.
    m_playBuf.reset(static_cast<char *>(std::calloc(size_t(limit), 1)));
    m_playBufSize = m_playBuf ? limit : 0;
    m_loadedSize = 0;
    resetPass();
    m_playPackets = m_playSkipped = 0;
    m_playPasses = 0;
    m_playClock.restart();
    if (!m_playBuf) {
        KTRACE << "no memory for playback buffer of" << limit << "bytes";
        m_file.close();
        return false;
    }
    m_file.seek(0);
    qint64 pos = 0;
    while (!m_file.atEnd()) {
        const qint64 room = qMin<qint64>(PlaybackChunkSize, m_playBufSize - pos);
        if (room <= 0)
            break;
        const qint64 got = m_file.read(m_playBuf.get() + pos, room);
        if (got <= 0)
            break;
        pos += got;
    }
    m_loadedSize = int(qMin<qint64>(size, pos));
    KTRACE << "playback file" << name << m_loadedSize << "bytes";
    if (consumerCount() > 0)
        restartPlayback();
    return true;
}

void WebSocketServer::restartPlayback()
{
    m_playClock.restart();
    g_connectionClock.restart();
    // The clock starts again, so the pacing starts again from the next frame.
    m_haveFirstFrame = false;
    if (m_timerId)
        killTimer(m_timerId);
    m_timerInterval = qMax<int>(1, Korb::sendIntervalMs);
    m_timerId = startTimer(m_timerInterval, Qt::PreciseTimer);
}

void WebSocketServer::stopPlaybackTimer()
{
    if (m_timerId) {
        killTimer(m_timerId);
        m_timerId = 0;
    }
}

void WebSocketServer::resetPass()
{
    m_scanPos = 0;
    m_lastFrameLen = 0;
    m_haveFirstFrame = false;
    m_passHasFrames = false;
    m_firstFrameMs = 0;
    m_playMap.clear();
    m_passBytes = 0;
    m_passSkipped = 0;
}

void WebSocketServer::playbackEndOfPass()
{
    ++m_playPasses;
    const double secs = m_playClock.elapsed() / 1000.0;
    const double mb = m_passBytes / BytesPerMb;
    if (m_passSkipped > 0)
        KTRACE << "##################### warn"
               << "pass" << m_playPasses << "skip" << m_passSkipped;
    KTRACE << "pass" << m_playPasses << QString::number(mb, 'f', 3) << "Mb"
           << QString::number(secs > 0 ? mb / secs : 0.0, 'f', 3) << "Mb/sec"
           << "skip" << m_passSkipped;
    resetPass();
    m_playClock.restart();
}

void WebSocketServer::timerEvent(QTimerEvent *event)
{
    if (event->timerId() != m_timerId || m_timerId == 0) {
        QWebSocketServer::timerEvent(event);
        return;
    }
    playbackStep();
}

// One playback step. Frames are due by their own time stamps, counted from
// the first frame of the pass, against the playback clock. A step sends at
// most one packet: the latest due single frame, or the map of the latest due
// channel frame of each group; due frames that do not make it are skipped.
void WebSocketServer::playbackStep()
{
    if (!m_playBuf || m_loadedSize < Rdv::HeaderSize)
        return;

    const char *buf = m_playBuf.get();
    const qint64 elapsed = m_playClock.elapsed();
    const RdvFrame *single = nullptr;
    int due = 0;
    int channelsThisStep = 0;
    bool refreshed[256] = {};
    bool endOfFile = false;

    int pos = m_scanPos;
    for (;;) {
        // Look for the next header; the rest of the bytes are skipped.
        const int lastStart = m_loadedSize - Rdv::HeaderSize;
        const int found = KorbRdvScanner::findHeader(buf, pos, lastStart, KorbRdvScanner::Search::Simd);
        pos = found < 0 ? lastStart + 1 : found;
        if (pos + Rdv::HeaderSize > m_loadedSize) {
            endOfFile = true;
            break;
        }
        const char *f = buf + pos;
        const int len = Rdv::frameLength(f);
        if (pos + len > m_loadedSize) {
            // A frame cut off by the end of the file is not sent.
            endOfFile = true;
            break;
        }
        m_passHasFrames = true;
        const quint64 ms = Rdv::timeMs(f);
        if (!m_haveFirstFrame) {
            m_haveFirstFrame = true;
            m_firstFrameMs = ms;
        }
        if (qint64(ms - m_firstFrameMs) > elapsed)
            break; // not due yet
        m_lastFrameLen = len;
        m_lastFrameSec2000 = Rdv::secondsSince2000(f);
        ++due;
        if (Rdv::kind(f) == 2) {
            single = reinterpret_cast<const RdvFrame *>(f);
        } else {
            const qint8 g = Rdv::group(f);
            // Overwriting a group already refreshed in this step drops that frame.
            m_playMap.insert(g, reinterpret_cast<RdvChannelFrame *>(const_cast<char *>(f)));
            if (!refreshed[quint8(g)]) {
                refreshed[quint8(g)] = true;
                ++channelsThisStep;
            }
        }
        pos += len;
    }
    m_scanPos = pos;

    if (due > 0) {
        int sentFrames = 0;
        if (consumerCount() > 0) {
            m_lastPacketSize = 0;
            // When both kinds fell due in this step, take turns, so that
            // neither the channel groups nor the single frames starve.
            const bool sendChannel = channelsThisStep > 0 && (!single || !m_lastSentWasChannel);
            m_lastSentWasChannel = sendChannel;
            if (sendChannel) {
                sendRdv(m_playMap);
                // Only the groups refreshed in this step count as sent now.
                sentFrames = channelsThisStep;
            } else {
                sendRdv(single);
                sentFrames = 1;
            }
            ++m_playPackets;
            m_passBytes += m_lastPacketSize;
        }
        const int skipped = due - sentFrames;
        m_passSkipped += skipped;
        m_playSkipped += skipped;
    }
    if (endOfFile) {
        if (!m_passHasFrames) {
            // A whole pass without a single frame: rescanning it every step
            // would only burn the processor.
            KTRACE << "##################### warn"
                   << "no frames in" << m_file.fileName();
            stopPlaybackTimer();
            resetPass();
            return;
        }
        playbackEndOfPass();
    }
}
