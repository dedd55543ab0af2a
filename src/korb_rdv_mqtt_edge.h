#pragma once

#include "src/korb_rdv_source.h"

#include <QByteArray>
#include <QString>

class KorbRdvMqttLink;
class WebSocketServer;

// The edge relay's source: packets another relay published on a broker
// topic, broadcast unchanged to this instance's own WebSocket clients with
// the same latest-wins rule, commands and limits. The edge's own send
// interval ("ims", -interval_ms=) thins them by the packets' time stamps,
// with the same rule as a device source's rate gate: a packet goes when its
// stamp lies strictly more than the interval after the last one sent. So an
// edge at its publisher's interval passes everything the publisher sent, and
// the broker's timing (bunching, a burst after a reconnect) changes nothing.
// "csv" and "buf" find no device data here and do nothing.
class KorbRdvMqttEdge : public KorbRdvSource
{
    Q_OBJECT
    Q_DISABLE_COPY(KorbRdvMqttEdge)

public:
    // The link is opened by the owner, once it has set what else it carries.
    explicit KorbRdvMqttEdge(QObject *parent, WebSocketServer *server, const QString &instance,
                             const QByteArray &topic);

    // "HOST[:PORT]/TOPIC" of the option; false for a bad target or a topic
    // a broker would refuse.
    static bool parseSource(const QString &text, QString *host, quint16 *port, QByteArray *topic);

    KorbRdvMqttLink *link() const { return m_link; }
    QByteArray topic() const { return m_topic; }
    // Messages taken from the topic, those that were no packet, and those
    // handed to the broadcast.
    qint64 packetsReceived() const { return m_received; }
    qint64 packetsRefused() const;
    qint64 packetsForwarded() const { return m_forwarded; }

protected:
    bool receiving() const override;

private:
    void take(const QByteArray &topic, const QByteArray &packet);

    WebSocketServer *m_server;
    KorbRdvMqttLink *m_link;
    QByteArray m_topic;
    qint64 m_received = 0;
    qint64 m_refused = 0;
    qint64 m_forwarded = 0;
};
