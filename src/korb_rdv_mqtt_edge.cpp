#include "src/korb_rdv_mqtt_edge.h"

#include "logger/korb_log.h"
#include "src/korb_rdv_mqtt_link.h"
#include "src/korb_rdv_packet.h"
#include "src/korb_rdv_sink.h"

#include <QCoreApplication>

#include <utility>

KorbRdvMqttEdge::KorbRdvMqttEdge(QObject *parent, KorbRdvSink *sink, QObject *commandSource,
                                 const QString &instance, const QByteArray &topic)
    : KorbRdvSource(parent, sink, commandSource, 0, KorbRdvScanner::Pacing::Stream),
      m_link(new KorbRdvMqttLink(
          this, QStringLiteral("korbrdv-%1-%2-sub").arg(instance).arg(QCoreApplication::applicationPid())))
{
    setObjectName(QStringLiteral("mqtt_edge"));
    m_link->setSubscription(topic);
    connect(m_link, &KorbRdvMqttLink::message, this, &KorbRdvMqttEdge::take);
    m_release.setSingleShot(true);
    m_release.setTimerType(Qt::PreciseTimer);
    connect(&m_release, &QTimer::timeout, this, &KorbRdvMqttEdge::release);
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
    markIngest();
    noteDelivered(++m_received);
    // Only what reads as a relay's packet goes to the clients.
    if (!Rdv::isPacket(packet)) {
        ++m_refused;
        KLOGF(this, 1,
              tr("MQTT: сообщение %1 (%2 байт) не является пакетом Rdv и отброшено")
                  .arg(QString::fromUtf8(topic))
                  .arg(packet.size()));
        return;
    }
    // Nothing is handed on while nobody takes it.
    if (m_sink->consumerCount() == 0)
        return;
    const qint64 interval = m_scan.sendIntervalMs();
    const qint64 wait = m_sinceForward.isValid() ? interval - m_sinceForward.elapsed() : 0;
    if (wait <= 0 && !m_release.isActive()) {
        forward(packet);
        return;
    }
    m_held = packet; // a newer one replaces it
    if (!m_release.isActive())
        m_release.start(int(qMax<qint64>(wait, 0)));
}

void KorbRdvMqttEdge::release()
{
    const QByteArray packet = std::exchange(m_held, QByteArray());
    if (!packet.isEmpty() && m_sink->consumerCount() > 0)
        forward(packet);
}

void KorbRdvMqttEdge::forward(const QByteArray &packet)
{
    m_sinceForward.restart();
    ++m_forwarded;
    m_sink->sendPacket(packet);
}
