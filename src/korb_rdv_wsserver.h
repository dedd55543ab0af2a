#pragma once

#include "src/korb_rdv_access.h"
#include "src/korb_rdv_fanout.h"
#include "src/korb_rdv_player.h"
#include "src/korb_rdv_settings.h"
#include "src/korb_rdv_sink.h"
#include "src/korb_rdv_wire.h"
#include "src/korb_rdv_ws_listener.h"

#include <QMap>
#include <QSet>
#include <QVariant>
#include <QWebSocket>
#include <QWebSocketServer>

class KorbRdvHttpService;
class KorbRdvWsClient;

// The daemon's only outward data interface: a WebSocket server (plain, and
// TLS through a listener added to it) that keeps the table of its clients,
// answers their text commands and broadcasts the binary Rdv packets built
// from the device frames (through its fan-out). A loaded recording is
// replayed by its player while anybody takes its packets: the first
// consumer starts it, the last one stops it.
class WebSocketServer : public QWebSocketServer, public KorbRdvSink
{
    Q_OBJECT
    Q_DISABLE_COPY(WebSocketServer)

public:
    // Commands are a few bytes; a larger message from a client is refused by
    // its socket before it is buffered.
    static constexpr quint64 MaxClientMessageSize = 64 * 1024;
    // A client's input taken per event-loop turn: one capped message with its
    // frame header fits, and a flooding client cannot hold the loop longer.
    static constexpr qint64 ClientReadBufferSize = qint64(MaxClientMessageSize) + 1024;
    // Replies and other writes that are no packets, waiting for one client at
    // once; a client that sends commands without reading the answers is
    // disconnected (1008) past it instead of growing the relay's memory.
    static constexpr qint64 MaxClientReplyBacklog = 64 * 1024;
    // "Try Again Later" of the WebSocket close code registry; Qt 5 has no name for it.
    static constexpr auto CloseCodeTryAgainLater = QWebSocketProtocol::CloseCode(1013);
    // Characters of a client's message shown in its console line.
    static constexpr int TracedMessageChars = 200;

    explicit WebSocketServer(QObject *parent,
                             quint16 port = 0); // server name "rdv", NonSecureMode; 0 -> 3005
    ~WebSocketServer() override;

    bool start(quint16 port = 0);
    void stop();
    quint16 port() const { return m_port; }
    // The relay listens through its own TCP server, not through the one
    // QWebSocketServer keeps, whose clients would bypass the relay's client
    // policy; so listen() and its kin are the relay's own too.
    bool listen(const QHostAddress &address = QHostAddress::Any, quint16 port = 0)
    {
        return m_listener->listen(address, port);
    }
    bool isListening() const { return m_listener->isListening(); }
    quint16 serverPort() const { return m_listener->serverPort(); }
    // Closes every port of the relay.
    void close();
    QString errorString() const { return m_listener->errorString(); }
    // Another port of the relay (TLS): its connections join the same
    // handshake and client table. The server takes it as a child, closes it
    // with the plain one and deletes it after the clients, whose sockets it owns.
    void addListener(KorbRdvWsListener *listener);

    int maxClients() const { return m_maxClients; }
    void setMaxClients(int clients);
    void setMaxQueuedBytes(qint64 bytes) { m_fanOut->setMaxQueuedBytes(bytes); }

    bool sendClient(quint64 descriptor, const QVariant &data);
    // Text goes to every client; a byte array is broadcast as a packet.
    void sendAllClients(const QVariant &data);
    bool removeClient(quint64 descriptor);
    int clientCount() const override { return m_clients.size(); }
    // Clients of the TLS port alone.
    int tlsClientCount() const;
    // Clients plus the consumers outside the table (a broker link that
    // publishes the packets, a recorder that keeps the frames whose packets
    // went out): packets are built, and playback runs, while there is any.
    int consumerCount() const override { return m_clients.size() + m_externalConsumers.size(); }
    // `consumer` takes the packets beside the clients, or no longer does.
    void setExternalConsumer(const QObject *consumer, bool consumes);

    void sendRdv(const RdvFrame *frame) override;
    void sendRdv(const RdvChannelMap &channels) override;
    void sendPacket(const QByteArray &packet) override;
    void holdPackets() override { m_fanOut->hold(); }
    void releasePackets(bool newestOnly) override { m_fanOut->release(newestOnly); }
    void markIngest() override;

    // Who may connect and who may steer; without it, everyone may.
    void setAccess(const KorbRdvAccess &access) { m_access = access; }
    // What replays a recording; without one, setFileNm loads nothing.
    void setPlayer(KorbRdvPlayer *player) { m_player = player; }
    // What answers requests that are no WebSocket upgrade; without it, 404.
    void setHttpService(const KorbRdvHttpService *service) { m_http = service; }
    // Loads a recording for playback (the player's load rules).
    bool setFileNm(const QString &name);
    // Whether the playback timer runs, and its period.
    bool playbackActive() const { return m_player && m_player->isPlaying(); }
    int playbackTimerInterval() const { return m_player ? m_player->tickMs() : 0; }

    // Binary messages handed to the broadcast since the process started.
    static int broadcastCount() { return s_broadcastCount; }
    // Packets that waited for a slow client and gave way to a newer one.
    qint64 replacedPackets() const { return m_fanOut->replacedPackets(); }
    // A pass of the broadcast is under way (more slices to come).
    bool broadcastInProgress() const { return m_fanOut->passActive(); }
    // From the read that completed a frame to the first client write of its packet.
    const KorbRdvHistogram &ingestToSend() const { return m_fanOut->ingestToSend(); }
    // Connections refused for `reason` since the server started.
    qint64 refusals(KorbRdvWsListener::Refusal reason) const { return m_refusals[reason]; }

signals:
    void connected(QWebSocket *socket);
    void disconnected(QWebSocket *socket);
    void readyRead(const QVariant &message, QWebSocket *socket);
    void runCmd(const QString &cmd);
    void runCmd(quint16 intervalMs);
    // Every packet handed to the broadcast, as the clients get it.
    void binaryBroadcast(const QByteArray &packet);

public slots:
    void onReadyReadT(const QString &message);
    void onReadyReadB(const QByteArray &message);
    void onNewConnection();
    void onDisconnected();

private:
    // A connection's first request: the upgrade goes to the WebSocket handshake.
    void onRequest(KorbRdvClientLink *link, const KorbRdvHttpRequest &request);
    // The player follows the consumers: `first` when one has just come to none.
    void follow(bool first);
    void dropFromTable(QWebSocket *socket);
    void onRepliesUnread(KorbRdvWsClient *client);
    void cutOff(KorbRdvWsClient *client);
    // The client of the table that sent a message; null for any other sender.
    KorbRdvWsClient *clientOf(QObject *sender) const
    {
        return m_clients.value(qobject_cast<QWebSocket *>(sender));
    }

    static int s_broadcastCount;
    quint16 m_port;
    KorbRdvWsListener *m_listener; // the plain port's, first of the listeners
    QList<KorbRdvWsListener *> m_listeners;
    int m_maxClients = Korb::DefaultMaxClients;
    QSet<const QObject *> m_externalConsumers;
    // The client table, ordered by socket pointer: broadcasts visit it in that order.
    QMap<QWebSocket *, KorbRdvWsClient *> m_clients;
    KorbRdvFanOut *m_fanOut;
    KorbRdvPlayer *m_player = nullptr;
    KorbRdvAccess m_access;
    const KorbRdvHttpService *m_http = nullptr;
    qint64 m_ingestNs = -1; // the latest KorbRdvSink::markIngest()
    qint64 m_refusals[KorbRdvWsListener::Refusals] = {};
};
