#pragma once

#include "src/korb_rdv_wire.h"

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QObject>
#include <QString>
#include <QTimer>

class QHostInfo;
class QSocketNotifier;
struct mosquitto;
struct mosquitto_message;

// One client connection to an MQTT broker (libmosquitto), driven by the Qt
// event loop through the library's socket: a notifier for reading, one for
// writing while the library has bytes to send, and a timer for its keep-alive.
// Nothing blocks: names are resolved by Qt before the library sees a numeric
// address, the connection is made asynchronously, and a lost or refused one
// is tried again with a growing pause. Publishing never waits for the broker:
// past a few publishes the socket has not taken yet, the newest of each topic
// waits in the link and the one it replaces is dropped and counted.
class KorbRdvMqttLink : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY(KorbRdvMqttLink)

public:
    static constexpr quint16 DefaultPort = 1883;
    // Publishes handed to the library but not yet written to the socket. A
    // slow broker holds the relay's memory to this many packets.
    static constexpr int MaxQueuedPublishes = 4;
    // Pause before the first new attempt after a failure; it doubles with
    // each failure up to the last.
    static constexpr int FirstRetryMs = 1000;
    static constexpr int LastRetryMs = 30000;
    // The broker closes a silent link after 1.5 times this; the library
    // pings it meanwhile, and gives up on a broker that does not answer
    // (a connection attempt included) after about twice it.
    static constexpr int KeepAliveS = 10;
    // How often the library's housekeeping (pings, time-outs) runs.
    static constexpr int HousekeepingMs = 1000;
    // Largest message taken from a subscription: the largest packet a relay
    // sends. Larger ones are dropped and counted.
    static constexpr qint64 MaxMessageSize = Rdv::MaxPacketSize;

    explicit KorbRdvMqttLink(QObject *parent, const QString &clientId);
    ~KorbRdvMqttLink() override;

    // "HOST[:PORT]" of an option: the host and the port (DefaultPort when
    // none is given); false for an empty host or a bad port.
    static bool parseTarget(const QString &text, QString *host, quint16 *port);
    // Whether a broker takes `topic` to publish on (no wildcards) or to
    // subscribe to (wildcards where they may stand).
    static bool validTopic(const QByteArray &topic, bool subscription);

    // Before open(): the topic whose retained value says whether the
    // instance is up: "online" after each connection, "offline" from the
    // broker's last will when the link dies, and from close().
    void setPresenceTopic(const QByteArray &topic);
    // Before open(): a topic subscribed to after each connection.
    void setSubscription(const QByteArray &topic);

    // Starts connecting to host:port, and keeps the link up until close().
    void open(const QString &host, quint16 port);
    // Says "offline" on the presence topic and disconnects cleanly.
    void close();

    bool isUp() const { return m_up; }
    QString target() const;
    // QoS 0. True when handed to the library or waiting for room; false when
    // the link is down (the payload is dropped and counted).
    bool publish(const QByteArray &topic, const QByteArray &payload, bool retain);
    // Payloads that never reached the broker: replaced while waiting, built
    // while the link was down, or refused by the library.
    qint64 droppedPublishes() const { return m_dropped; }
    // Subscribed messages dropped for their size.
    qint64 refusedMessages() const { return m_refused; }

signals:
    void up();
    void down();
    void message(const QByteArray &topic, const QByteArray &payload);

private:
    struct Waiting
    {
        QByteArray payload;
        bool retain = false;
    };

    static void onConnect(mosquitto *, void *self, int rc);
    static void onDisconnect(mosquitto *, void *self, int rc);
    static void onPublish(mosquitto *, void *self, int mid);
    static void onMessage(mosquitto *, void *self, const mosquitto_message *message);

    void attempt();
    void onResolved(const QHostInfo &info);
    void connectTo(const QString &address);
    void watchSocket();
    void unwatchSocket();
    void onReadable();
    void onWritable();
    void onHousekeeping();
    // After every call into the library: acts on what its callbacks noted.
    void settle(int rc);
    void becomeUp();
    void fail(const QString &why);
    bool hand(const QByteArray &topic, const QByteArray &payload, bool retain);
    void flushWaiting();

    mosquitto *m_mosq = nullptr;
    QString m_host;
    quint16 m_port = DefaultPort;
    QByteArray m_presence;
    QByteArray m_subscription;
    QSocketNotifier *m_read = nullptr;
    QSocketNotifier *m_write = nullptr;
    QTimer m_housekeeping;
    QTimer m_retry;
    int m_retryMs = FirstRetryMs;
    int m_lookupId = -1;
    bool m_open = false;
    bool m_up = false;
    bool m_failureLogged = false;

    // Noted by the library's callbacks, acted on by settle().
    int m_connack = -1; // -1: none came
    bool m_lost = false;
    int m_lostRc = 0;
    QList<QPair<QByteArray, QByteArray>> m_inbox;

    int m_queued = 0; // publishes in the library, not yet written
    QMap<QByteArray, Waiting> m_waiting;
    qint64 m_dropped = 0;
    qint64 m_refused = 0;
};
