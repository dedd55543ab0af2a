#include "src/korb_rdv_mqtt_link.h"

#include "logger/korb_log.h"
#include "src/korb_host_port.h"

#include <QHostAddress>
#include <QHostInfo>
#include <QPointer>
#include <QSocketNotifier>

#include <mosquitto.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace {

// The library keeps process-wide state that must be set up once, before the
// first client, and is never torn down while the process runs.
void initLibrary()
{
    static const int once = mosquitto_lib_init();
    Q_UNUSED(once);
}

// Failures that end the connection, as opposed to those of one message.
bool connectionError(int rc)
{
    return rc == MOSQ_ERR_NO_CONN || rc == MOSQ_ERR_CONN_LOST || rc == MOSQ_ERR_ERRNO ||
           rc == MOSQ_ERR_PROTOCOL || rc == MOSQ_ERR_KEEPALIVE;
}

// `rc` in words; errno is read at once, right after the call that set it.
QString reason(int rc)
{
    if (rc == MOSQ_ERR_ERRNO)
        return QString::fromLocal8Bit(std::strerror(errno));
    return QString::fromUtf8(mosquitto_strerror(rc));
}

} // namespace

KorbRdvMqttLink::KorbRdvMqttLink(QObject *parent, const QString &clientId) : QObject(parent)
{
    initLibrary();
    m_mosq = mosquitto_new(clientId.toUtf8().constData(), true, this);
    if (!m_mosq) {
        KLOG(this, 0, tr("MQTT: клиент не создан: %1").arg(QString::fromLocal8Bit(std::strerror(errno))));
        return;
    }
    mosquitto_connect_callback_set(m_mosq, &KorbRdvMqttLink::onConnect);
    mosquitto_disconnect_callback_set(m_mosq, &KorbRdvMqttLink::onDisconnect);
    mosquitto_publish_callback_set(m_mosq, &KorbRdvMqttLink::onPublish);
    mosquitto_message_callback_set(m_mosq, &KorbRdvMqttLink::onMessage);
    // Packets are written as soon as they come; Nagle would only add delay.
    mosquitto_int_option(m_mosq, MOSQ_OPT_TCP_NODELAY, 1);
    m_housekeeping.setInterval(HousekeepingMs);
    connect(&m_housekeeping, &QTimer::timeout, this, &KorbRdvMqttLink::onHousekeeping);
    m_retry.setSingleShot(true);
    connect(&m_retry, &QTimer::timeout, this, &KorbRdvMqttLink::attempt);
}

KorbRdvMqttLink::~KorbRdvMqttLink()
{
    close();
    unwatchSocket();
    if (m_mosq)
        mosquitto_destroy(m_mosq);
}

bool KorbRdvMqttLink::parseTarget(const QString &text, QString *host, quint16 *port)
{
    const Korb::HostPort target = Korb::splitHostPort(text);
    if (target.host.isEmpty())
        return false;
    *host = target.host;
    *port = DefaultPort;
    return !target.separator || Korb::parsePort(target.port, port);
}

bool KorbRdvMqttLink::validTopic(const QByteArray &topic, bool subscription)
{
    if (topic.isEmpty())
        return false;
    return (subscription ? mosquitto_sub_topic_check(topic.constData())
                         : mosquitto_pub_topic_check(topic.constData())) == MOSQ_ERR_SUCCESS;
}

void KorbRdvMqttLink::setPresenceTopic(const QByteArray &topic)
{
    m_presence = topic;
}

void KorbRdvMqttLink::setSubscription(const QByteArray &topic)
{
    m_subscription = topic;
}

QString KorbRdvMqttLink::target() const
{
    return QStringLiteral("%1:%2").arg(m_host).arg(m_port);
}

void KorbRdvMqttLink::open(const QString &host, quint16 port)
{
    if (!m_mosq)
        return;
    m_host = host;
    m_port = port;
    m_open = true;
    if (!m_presence.isEmpty())
        mosquitto_will_set(m_mosq, m_presence.constData(), int(std::strlen(Rdv::MqttStateOffline)),
                           Rdv::MqttStateOffline, 0, true);
    attempt();
}

void KorbRdvMqttLink::close()
{
    m_open = false;
    m_retry.stop();
    if (m_lookupId >= 0) {
        QHostInfo::abortHostLookup(m_lookupId);
        m_lookupId = -1;
    }
    if (!m_up)
        return;
    m_up = false;
    // Written at once where the socket takes them; if it does not, the
    // broker's last will says the same when the socket goes.
    if (!m_presence.isEmpty())
        mosquitto_publish(m_mosq, nullptr, m_presence.constData(), int(std::strlen(Rdv::MqttStateOffline)),
                          Rdv::MqttStateOffline, 0, true);
    mosquitto_disconnect(m_mosq);
    unwatchSocket();
}

void KorbRdvMqttLink::attempt()
{
    if (!m_open)
        return;
    // The library resolves names with a blocking call; a numeric address
    // passes through it at once, so names are resolved by Qt first.
    const QHostAddress numeric(m_host);
    if (!numeric.isNull()) {
        connectTo(numeric.toString());
        return;
    }
    m_lookupId = QHostInfo::lookupHost(m_host, this, &KorbRdvMqttLink::onResolved);
}

void KorbRdvMqttLink::onResolved(const QHostInfo &info)
{
    m_lookupId = -1;
    if (info.error() != QHostInfo::NoError || info.addresses().isEmpty()) {
        fail(info.errorString());
        return;
    }
    connectTo(info.addresses().constFirst().toString());
}

void KorbRdvMqttLink::connectTo(const QString &address)
{
    // A new connection starts with the library's queues empty.
    m_connack = -1;
    m_lost = false;
    m_queued = 0;
    const int rc = mosquitto_connect_async(m_mosq, address.toUtf8().constData(), m_port, KeepAliveS);
    if (rc != MOSQ_ERR_SUCCESS) {
        fail(reason(rc));
        return;
    }
    watchSocket();
    settle(MOSQ_ERR_SUCCESS);
}

void KorbRdvMqttLink::watchSocket()
{
    unwatchSocket();
    const int fd = mosquitto_socket(m_mosq);
    if (fd < 0)
        return;
    m_read = new QSocketNotifier(fd, QSocketNotifier::Read, this);
    connect(m_read, &QSocketNotifier::activated, this, &KorbRdvMqttLink::onReadable);
    m_write = new QSocketNotifier(fd, QSocketNotifier::Write, this);
    m_write->setEnabled(false);
    connect(m_write, &QSocketNotifier::activated, this, &KorbRdvMqttLink::onWritable);
    m_housekeeping.start();
}

void KorbRdvMqttLink::unwatchSocket()
{
    m_housekeeping.stop();
    // Later: this may run inside one of the notifiers' own signals.
    for (QSocketNotifier *n : {m_read, m_write}) {
        if (n) {
            n->setEnabled(false);
            n->deleteLater();
        }
    }
    m_read = m_write = nullptr;
}

void KorbRdvMqttLink::onReadable()
{
    settle(mosquitto_loop_read(m_mosq, 1));
}

void KorbRdvMqttLink::onWritable()
{
    settle(mosquitto_loop_write(m_mosq, 1));
}

void KorbRdvMqttLink::onHousekeeping()
{
    settle(mosquitto_loop_misc(m_mosq));
}

void KorbRdvMqttLink::settle(int rc)
{
    if (rc != MOSQ_ERR_SUCCESS && !m_lost) {
        m_lost = true;
        m_lostRc = rc;
    }
    const QPointer<KorbRdvMqttLink> self(this);
    const auto inbox = std::exchange(m_inbox, {});
    for (const auto &m : inbox) {
        emit message(m.first, m.second);
        if (!self)
            return;
    }
    const int connack = std::exchange(m_connack, -1);
    if (connack > 0) {
        fail(tr("брокер отказал: %1").arg(QString::fromUtf8(mosquitto_connack_string(connack))));
        return;
    }
    if (m_lost) {
        fail(reason(m_lostRc));
        return;
    }
    if (connack == 0)
        becomeUp();
    if (!self || !m_up)
        return;
    flushWaiting();
    if (m_write)
        m_write->setEnabled(mosquitto_want_write(m_mosq));
}

void KorbRdvMqttLink::becomeUp()
{
    m_up = true;
    m_retryMs = FirstRetryMs;
    m_failureLogged = false;
    KLOG(this, 1, tr("MQTT: связь с брокером %1 установлена").arg(target()));
    if (!m_presence.isEmpty())
        hand(m_presence, Rdv::MqttStateOnline, true);
    if (!m_subscription.isEmpty()) {
        const int rc = mosquitto_subscribe(m_mosq, nullptr, m_subscription.constData(), 0);
        if (rc != MOSQ_ERR_SUCCESS)
            KLOG(
                this, 0,
                tr("MQTT: подписка на %1 не удалась: %2").arg(QString::fromUtf8(m_subscription), reason(rc)));
    }
    emit up();
}

void KorbRdvMqttLink::fail(const QString &why)
{
    unwatchSocket();
    m_lost = false;
    m_connack = -1;
    m_inbox.clear();
    m_queued = 0;
    m_dropped += m_waiting.size();
    m_waiting.clear();
    const bool wasUp = std::exchange(m_up, false);
    // Each change is logged once: the loss of a working link, or the first
    // failure of a link that never came up; not every attempt after it.
    if (wasUp || !m_failureLogged) {
        m_failureLogged = true;
        KLOG(this, 1,
             (wasUp ? tr("MQTT: связь с брокером %1 потеряна (%2); новые попытки через %3..%4 с")
                    : tr("MQTT: брокер %1 недоступен (%2); новые попытки через %3..%4 с"))
                 .arg(target(), why)
                 .arg(FirstRetryMs / 1000)
                 .arg(LastRetryMs / 1000));
    }
    if (m_open) {
        m_retry.start(m_retryMs);
        m_retryMs = qMin(2 * m_retryMs, LastRetryMs);
    }
    if (wasUp)
        emit down();
}

bool KorbRdvMqttLink::publish(const QByteArray &topic, const QByteArray &payload, bool retain)
{
    if (!m_up) {
        ++m_dropped;
        return false;
    }
    // Behind a waiting payload of the same topic, never past it.
    if (m_queued >= MaxQueuedPublishes || m_waiting.contains(topic)) {
        const auto it = m_waiting.find(topic);
        if (it != m_waiting.end())
            ++m_dropped;
        m_waiting.insert(topic, {payload, retain});
        flushWaiting();
        return true;
    }
    return hand(topic, payload, retain);
}

bool KorbRdvMqttLink::hand(const QByteArray &topic, const QByteArray &payload, bool retain)
{
    // Counted first: the library may report the write done before it returns.
    ++m_queued;
    const int rc =
        mosquitto_publish(m_mosq, nullptr, topic.constData(), payload.size(), payload.constData(), 0, retain);
    if (rc != MOSQ_ERR_SUCCESS) {
        --m_queued;
        ++m_dropped;
        if (connectionError(rc) && !m_lost) {
            // Acted on from the event loop: this may run deep in a broadcast.
            m_lost = true;
            m_lostRc = rc;
            if (m_read)
                m_read->setEnabled(false);
            if (m_write)
                m_write->setEnabled(false);
            QMetaObject::invokeMethod(
                this, [this] { settle(MOSQ_ERR_SUCCESS); }, Qt::QueuedConnection);
        }
        return false;
    }
    if (m_write)
        m_write->setEnabled(mosquitto_want_write(m_mosq));
    return true;
}

void KorbRdvMqttLink::flushWaiting()
{
    while (m_up && !m_lost && m_queued < MaxQueuedPublishes && !m_waiting.isEmpty()) {
        const auto it = m_waiting.begin();
        const QByteArray topic = it.key();
        const Waiting w = it.value();
        m_waiting.erase(it);
        hand(topic, w.payload, w.retain);
    }
}

void KorbRdvMqttLink::onConnect(mosquitto *, void *self, int rc)
{
    static_cast<KorbRdvMqttLink *>(self)->m_connack = rc;
}

void KorbRdvMqttLink::onDisconnect(mosquitto *, void *self, int rc)
{
    auto *link = static_cast<KorbRdvMqttLink *>(self);
    if (!link->m_lost) {
        link->m_lost = true;
        link->m_lostRc = rc == MOSQ_ERR_SUCCESS ? MOSQ_ERR_CONN_LOST : rc;
    }
}

void KorbRdvMqttLink::onPublish(mosquitto *, void *self, int)
{
    auto *link = static_cast<KorbRdvMqttLink *>(self);
    if (link->m_queued > 0)
        --link->m_queued;
}

void KorbRdvMqttLink::onMessage(mosquitto *, void *self, const mosquitto_message *message)
{
    auto *link = static_cast<KorbRdvMqttLink *>(self);
    if (message->payloadlen < 0 || message->payloadlen > MaxMessageSize) {
        ++link->m_refused;
        return;
    }
    link->m_inbox.append({QByteArray(message->topic),
                          QByteArray(static_cast<const char *>(message->payload), message->payloadlen)});
}
