#pragma once

#include "src/korb_rdv_source.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QString>
#include <QTimer>

class KorbRdvMqttLink;
class KorbRdvSink;

// The edge relay's source: packets another relay published on a broker
// topic, handed unchanged to the sink (this instance's WebSocket server,
// which broadcasts them with the same latest-wins rule, commands and limits). The edge's own send
// interval ("ims", -interval_ms=) is kept by the clock: a packet that comes
// an interval or more after the last one passed on goes at once; one that
// comes sooner waits for the end of the interval, and a newer one replaces
// it meanwhile. By the clock, not by the packets' stamps: a publisher that
// replays a recording paces by its own timer, so its stamps lie about one
// interval apart, as often a little less as a little more, and a gate on
// the stamps at the same interval would drop every other packet; by the
// clock an edge at its publisher's interval passes them all, whatever the
// source, and an edge at a longer one passes the newest of each interval.
// "csv" and "buf" find no device data here and do nothing.
class KorbRdvMqttEdge : public KorbRdvSource
{
    Q_OBJECT
    Q_DISABLE_COPY(KorbRdvMqttEdge)

public:
    // The link is opened by the owner, once it has set what else it carries.
    // `commandSource` as for every source: its runCmd signals steer this one.
    explicit KorbRdvMqttEdge(QObject *parent, KorbRdvSink *sink, QObject *commandSource,
                             const QString &instance, const QByteArray &topic);

    // "HOST[:PORT]/TOPIC" of the option; false for a bad target or a topic
    // a broker would refuse.
    static bool parseSource(const QString &text, QString *host, quint16 *port, QByteArray *topic);

    KorbRdvMqttLink *link() const { return m_link; }
    // Messages taken from the topic, those that were no packet, and those
    // handed to the broadcast.
    qint64 packetsReceived() const { return m_received; }
    qint64 packetsRefused() const;
    qint64 packetsForwarded() const { return m_forwarded; }

protected:
    bool receiving() const override;

private:
    void take(const QByteArray &topic, const QByteArray &packet);
    void release();
    void forward(const QByteArray &packet);

    KorbRdvMqttLink *m_link;
    qint64 m_received = 0;
    qint64 m_refused = 0;
    qint64 m_forwarded = 0;
    QElapsedTimer m_sinceForward;
    QTimer m_release;
    QByteArray m_held; // the newest packet waiting for the end of the interval
};
