#include "src/korb_rdv_mqtt_publisher.h"

#include "src/korb_rdv_mqtt_link.h"
#include "src/korb_rdv_wire.h"
#include "src/korb_rdv_wsserver.h"

#include <QCoreApplication>

KorbRdvMqttPublisher::KorbRdvMqttPublisher(QObject *parent, WebSocketServer *server, const QString &instance)
    : QObject(parent), m_server(server),
      m_link(new KorbRdvMqttLink(
          this, QStringLiteral("korbrdv-%1-%2-pub").arg(instance).arg(QCoreApplication::applicationPid()))),
      m_topic(Rdv::mqttTopic(instance, Rdv::MqttPacketLeaf))
{
    setObjectName(QStringLiteral("mqtt_pub"));
    connect(server, &WebSocketServer::binaryBroadcast, this, &KorbRdvMqttPublisher::offer);
    connect(m_link, &KorbRdvMqttLink::up, this, [this] { m_server->setExternalConsumer(this, true); });
    connect(m_link, &KorbRdvMqttLink::down, this, [this] { m_server->setExternalConsumer(this, false); });
}

void KorbRdvMqttPublisher::offer(const QByteArray &packet)
{
    // Also while the link is down: the link counts what never reached the broker.
    m_link->publish(m_topic, packet, false);
}
