#include "src/korb_rdv_wsserver.h"

#include "logger/korb_log.h"
#include "src/korb_rdv_command.h"
#include "src/korb_rdv_packet.h"
#include "src/korb_rdv_scanner.h"
#include "src/korb_rdv_settings.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QNetworkProxy>
#include <QTimerEvent>
#include <QWebSocket>

namespace {

// Time of the last client connection and of the last playback (re)start.
QElapsedTimer g_connectionClock;
// Binary messages handed to the broadcast.
int g_broadcastCount = 0;

constexpr double BytesPerMb = 1024.0 * 1024.0;

} // namespace

WebSocketServer::WebSocketServer(QObject *parent, quint16 port)
    : QWebSocketServer(QStringLiteral("rdv"), QWebSocketServer::NonSecureMode, parent),
      m_port(port ? port : Korb::DefaultPort)
{
    connect(this, &QWebSocketServer::newConnection, this, &WebSocketServer::onNewConnection);
}

WebSocketServer::~WebSocketServer()
{
    stopPlaybackTimer();
    // The remaining clients go with the server; their disconnected() must not
    // reach a server that is half destroyed.
    const auto clients = m_clients.keys();
    m_clients.clear();
    for (QWebSocket *socket : clients) {
        socket->disconnect(this);
        delete socket;
    }
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

int WebSocketServer::broadcastCount()
{
    return g_broadcastCount;
}

int WebSocketServer::clientCount() const
{
    return m_clients.size();
}

// ---------------------------------------------------------------- client table

void WebSocketServer::onNewConnection()
{
    g_connectionClock.restart();
    QWebSocket *socket = nextPendingConnection();
    if (!socket)
        return;
    // Owned by the server: sockets released with deleteLater that the event
    // loop never reaches again still go when the server goes.
    socket->setParent(this);
    socket->setProxy(QNetworkProxy::NoProxy);
    socket->setMaxAllowedIncomingMessageSize(MaxClientMessageSize);
    socket->setMaxAllowedIncomingFrameSize(MaxClientMessageSize);
    connect(socket, &QWebSocket::textMessageReceived, this, &WebSocketServer::onReadyReadT);
    connect(socket, &QWebSocket::binaryMessageReceived, this, &WebSocketServer::onReadyReadB);
    connect(socket, &QWebSocket::disconnected, this, &WebSocketServer::onDisconnected);
    m_clients.insert(socket, socket);
    emit connected(socket);
    KTRACE << "client" << quint64(quintptr(socket)) << socket->peerAddress().toString() << socket->peerPort()
           << "clients:" << m_clients.size();
    if (m_file.isOpen() && m_clients.size() <= 1)
        restartPlayback();
}

void WebSocketServer::onDisconnected()
{
    QWebSocket *socket = qobject_cast<QWebSocket *>(sender());
    if (!socket)
        return;
    m_clients.remove(socket);
    socket->deleteLater();
    emit disconnected(socket);
    KTRACE << "client gone" << quint64(quintptr(socket)) << "clients:" << m_clients.size();
    if (m_clients.isEmpty())
        stopPlaybackTimer();
}

bool WebSocketServer::removeClient(quint64 descriptor)
{
    QWebSocket *key = reinterpret_cast<QWebSocket *>(quintptr(descriptor));
    auto it = m_clients.find(key);
    if (it == m_clients.end()) {
        if (Korb::logThreshold > 3)
            KLOG(this, 0, tr("не найден клиент с дескриптором %1").arg(descriptor));
        return false;
    }
    QWebSocket *socket = it.value();
    m_clients.erase(it);
    socket->close(QWebSocketProtocol::CloseCodeNormal, QString());
    socket->deleteLater();
    // Deliberately "at most one": the last remaining listener does not keep
    // playback going after an explicit removal.
    if (m_clients.size() <= 1)
        stopPlaybackTimer();
    return true;
}

// ---------------------------------------------------------------- sending

void WebSocketServer::sendBinary(QWebSocket *socket, const QByteArray &data)
{
    // A client that does not read would make its write buffer grow with every
    // packet and, through flush(), cost every broadcast; it misses packets
    // until it has drained below the limit.
    const qint64 backlog = socket->bytesToWrite();
    if (backlog > MaxClientBacklog) {
        ++m_backlogSkips;
        // Folded: one line per series, however long the client stalls.
        KLOGF(this, 1,
              tr("клиент %1 не успевает читать данные, пакеты для него пропускаются")
                  .arg(quint64(quintptr(socket))));
        return;
    }
    socket->sendBinaryMessage(data);
    socket->flush();
}

bool WebSocketServer::sendClient(quint64 descriptor, const QVariant &data)
{
    QWebSocket *socket = m_clients.value(reinterpret_cast<QWebSocket *>(quintptr(descriptor)), nullptr);
    if (!socket) {
        KLOG(this, 0, tr("не найден клиент с дескриптором %1").arg(descriptor));
        return false;
    }
    switch (data.userType()) {
    case QMetaType::QString:
        socket->sendTextMessage(data.toString());
        socket->flush();
        return true;
    case QMetaType::QByteArray:
        sendBinary(socket, data.toByteArray());
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
        for (QWebSocket *socket : qAsConst(m_clients)) {
            socket->sendTextMessage(text);
            socket->flush();
        }
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

void WebSocketServer::broadcastBinary(const QByteArray &packet)
{
    // The table may change under a send (a socket error ends in a
    // disconnect), so walk a copy; every client shares the one byte array.
    const auto clients = m_clients.keys();
    for (QWebSocket *socket : clients) {
        if (m_clients.contains(socket))
            sendBinary(socket, packet);
    }
}

void WebSocketServer::sendRdv(const RdvFrame *frame)
{
    if (!frame || m_clients.isEmpty())
        return;
    const QByteArray packet = Rdv::buildPacket(frame);
    m_lastPacketSize = packet.size();
    ++g_broadcastCount;
    sendAllClients(packet);
}

void WebSocketServer::sendRdv(const RdvChannelMap &channels)
{
    if (m_clients.isEmpty())
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

void WebSocketServer::onReadyReadT(const QString &message)
{
    QWebSocket *socket = qobject_cast<QWebSocket *>(sender());
    if (!socket)
        return;
    if (!message.isEmpty()) {
        KTRACE << "cmd: " << message;
        emit readyRead(QVariant(message), socket);
    }
    const RdvClientCommand command = RdvClientCommand::parse(message);
    switch (command.action) {
    case RdvClientCommand::Forward:
        emit runCmd(command.word);
        return;
    case RdvClientCommand::SetInterval:
        Korb::sendIntervalMs = command.intervalMs;
        if (m_file.isOpen())
            restartPlayback();
        emit runCmd(command.intervalMs);
        break;
    case RdvClientCommand::Refuse:
        if (!message.isEmpty())
            KTRACE << "refused:" << command.reply;
        break;
    }
    socket->sendTextMessage(command.reply);
    socket->flush();
}

void WebSocketServer::onReadyReadB(const QByteArray &message)
{
    QWebSocket *socket = qobject_cast<QWebSocket *>(sender());
    if (!socket)
        return;
    socket->sendTextMessage(QStringLiteral("@Err: binary command no supported"));
    socket->flush();
    KTRACE << "binary message of" << message.size() << "bytes refused";
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
    if (!m_clients.isEmpty())
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
        if (!m_clients.isEmpty()) {
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
