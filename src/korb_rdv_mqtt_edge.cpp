#include "src/korb_rdv_mqtt_edge.h"

#include "logger/korb_log.h"
#include "src/korb_rdv_mqtt_link.h"
#include "src/korb_rdv_packet.h"
#include "src/korb_rdv_wsserver.h"

#include <QCoreApplication>

KorbRdvMqttEdge::KorbRdvMqttEdge(QObject *parent, WebSocketServer *server, const QString &instance,
                                 const QByteArray &topic)
    : KorbRdvSource(parent, server, server, 0), m_server(server),
      m_link(new KorbRdvMqttLink(
          this, QStringLiteral("korbrdv-%1-%2-sub").arg(instance).arg(QCoreApplication::applicationPid()))),
      m_topic(topic)
{
    setObjectName(QStringLiteral("mqtt_edge"));
    m_link->setSubscription(topic);
    connect(m_link, &KorbRdvMqttLink::message, this, &KorbRdvMqttEdge::take);
}

bool KorbRdvMqttEdge::parseSource(const QString &text, QString *host, quint16 *port, QByteArray *topic)
{
    const int slash = text.indexOf(QLatin1Char('/'));
    if (slash < 0)
        return false;
    *topic = text.mid(slash + 1).toUtf8();
    return KorbRdvMqttLink::parseTarget(text.left(slash), host, port) &&
           KorbRdvMqttLink::validTopic(*topic, true);
}

qint64 KorbRdvMqttEdge::packetsRefused() const
{
    return m_refused + m_link->refusedMessages();
}

bool KorbRdvMqttEdge::receiving() const
{
    return m_link->isUp();
}

void KorbRdvMqttEdge::take(const QByteArray &topic, const QByteArray &packet)
{
    ++m_received;
    quint64 ms = 0;
    if (!Rdv::packetTimeMs(packet, &ms)) {
        ++m_refused;
        KLOGF(this, 1,
              tr("MQTT: сообщение %1 (%2 байт) не является пакетом Rdv и отброшено")
                  .arg(QString::fromUtf8(topic))
                  .arg(packet.size()));
        return;
    }
    // Nothing is handed on while nobody takes it, and the gate stays where it was.
    if (!m_scan.clientsPresent() || !m_scan.gate(ms))
        return;
    ++m_forwarded;
    m_server->sendAllClients(packet);
}
