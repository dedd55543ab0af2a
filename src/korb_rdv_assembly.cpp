#include "src/korb_rdv_assembly.h"

#include "logger/korb_log.h"
#include "src/korb_rdv_disk_writer.h"
#include "src/korb_rdv_http_service.h"
#include "src/korb_rdv_mqtt_edge.h"
#include "src/korb_rdv_mqtt_link.h"
#include "src/korb_rdv_mqtt_publisher.h"
#include "src/korb_rdv_playback.h"
#include "src/korb_rdv_recorder.h"
#include "src/korb_rdv_tcp_cli.h"
#include "src/korb_rdv_tls_listener.h"
#include "src/korb_rdv_udp_cli.h"
#include "src/korb_rdv_wsserver.h"

#include <QHostAddress>

#include <limits>

KorbRdvAssembly::KorbRdvAssembly(QObject *owner, const KorbRdvOptions &options, const QString &instance)
    : QObject(owner), m_owner(owner), m_options(options), m_instance(instance)
{
    setObjectName(QStringLiteral("assembly"));
}

bool KorbRdvAssembly::openPorts()
{
    m_server = new WebSocketServer(m_owner, m_options.port);
    m_server->setMaxClients(m_options.maxClients);
    m_server->setAccess(KorbRdvAccess::fromSettings(m_options.origins, m_options.tokenFile));
    m_playback = new KorbRdvPlayback(m_server, m_server);
    m_server->setPlayer(m_playback);
    m_health = new KorbRdvHealth(this, [this] { return healthFigures(); });
    m_server->setHttpService(new KorbRdvHttpService(m_server, m_health));
    if (!m_server->start(m_options.port)) {
        KTRACE << "no listen ws port" << m_options.port;
        KLOG(m_owner, -1,
             tr("не удалось открыть порт WebSocket %1: %2").arg(m_options.port).arg(m_server->errorString()));
        return false;
    }
    // The TLS port fails on its own: the plain one serves whatever becomes of it.
    if (m_options.securePort)
        KorbRdvTlsListener::open(m_server, m_options.securePort,
                                 {m_options.tlsCertificate, m_options.tlsKey});
    return true;
}

bool KorbRdvAssembly::openSources()
{
    if (!m_options.mqttSource.isEmpty() && (m_options.replay() || m_options.udp())) {
        KLOG(m_owner, 1,
             tr("источник данных - брокер MQTT (-mqtt-sub=): -file= и -udp1=/-udp2= не действуют"));
        m_options.replayFile.clear();
        m_options.udpPorts[0] = m_options.udpPorts[1] = 0;
    }
    m_playback->setWindow(m_options.replayFromMs.value_or(std::numeric_limits<qint64>::min()),
                          m_options.replayToMs.value_or(std::numeric_limits<qint64>::max()));
    if (m_options.replay() && !m_server->setFileNm(m_options.replayFile))
        KLOG(m_owner, 0, tr("файл воспроизведения не загружен: %1").arg(m_options.replayFile));
    openRecorder();
    return openBrokerLinks();
}

void KorbRdvAssembly::openRecorder()
{
    m_writer = new KorbRdvDiskWriter(this);
    if (m_options.recording.dir.isEmpty())
        return;
    if (m_options.replay() || !m_options.mqttSource.isEmpty()) {
        KLOG(m_owner, 1, tr("запись (-record=) только с устройства: источник - запись или брокер MQTT"));
        return;
    }
    m_recorder = new KorbRdvRecorder(this, m_writer, m_instance, m_options.recording);
    // Gated, the recorder takes what the gate lets out: the gate runs, as for
    // a client, whether or not anybody listens.
    if (m_recorder->gated())
        m_server->setExternalConsumer(m_recorder, true);
}

void KorbRdvAssembly::attach(KorbRdvSource *source)
{
    source->setDumpWriter(m_writer, m_options.dumpQuotaMb * Korb::BytesPerMiB);
    if (const QPointer<KorbRdvRecorder> recorder = m_recorder)
        source->scanner().setNewFrameListener([recorder](const char *frame, bool sent) {
            if (recorder)
                recorder->take(frame, sent);
        });
}

bool KorbRdvAssembly::openBrokerLinks()
{
    QString subHost, pubHost;
    quint16 subPort = 0, pubPort = 0;
    QByteArray topic;
    const QString &source = m_options.mqttSource, &target = m_options.mqttTarget;
    const QByteArray state = Rdv::mqttTopic(m_instance, Rdv::MqttStateLeaf);
    if (!source.isEmpty() && !KorbRdvMqttEdge::parseSource(source, &subHost, &subPort, &topic)) {
        KTRACE << "err arg mqtt-sub: " << source;
        KLOG(m_owner, -1, tr("-mqtt-sub=%1: нужен HOST[:PORT]/TOPIC").arg(source));
        return false;
    }
    if (!target.isEmpty() && (!KorbRdvMqttLink::parseTarget(target, &pubHost, &pubPort) ||
                              !KorbRdvMqttLink::validTopic(state, false))) {
        KTRACE << "err arg mqtt: " << target;
        KLOG(m_owner, -1, tr("-mqtt=%1: нужен HOST[:PORT] и имя экземпляра без '+' и '#'").arg(target));
        return false;
    }
    if (!source.isEmpty())
        m_edge = new KorbRdvMqttEdge(m_owner, m_server, m_server, m_instance, topic);
    if (!target.isEmpty())
        m_publisher = new KorbRdvMqttPublisher(m_owner, m_server, m_instance);
    // State and health go with the instance's packets, else with the edge's link.
    KorbRdvMqttLink *announcer = m_publisher ? m_publisher->link() : m_edge ? m_edge->link() : nullptr;
    if (announcer) {
        announcer->setPresenceTopic(state);
        const QByteArray stats = Rdv::mqttTopic(m_instance, Rdv::MqttStatsLeaf);
        connect(m_health, &KorbRdvHealth::sampled, announcer, [announcer, stats](const QByteArray &json) {
            if (announcer->isUp())
                announcer->publish(stats, json, true);
        });
    }
    if (m_edge)
        m_edge->link()->open(subHost, subPort);
    if (m_publisher)
        m_publisher->link()->open(pubHost, pubPort);
    return true;
}

KorbRdvStreamerTcp *KorbRdvAssembly::createTcpClient()
{
    if (m_edge || !m_tcpClients.isEmpty())
        return nullptr;
    // With the default address the device port is our own WebSocket port:
    // connecting would only talk to ourselves.
    const QString &host = m_options.deviceHost;
    const quint16 port = m_options.devicePort;
    if ((QHostAddress(host).isLoopback() || host == QLatin1String("localhost")) && port == m_options.port) {
        KLOG(m_owner, 1,
             tr("TCP-клиент не создан: адрес устройства %1:%2 совпадает с собственным портом WebSocket")
                 .arg(host)
                 .arg(port));
        return nullptr;
    }
    auto *tcp = new KorbRdvStreamerTcp(m_owner, m_server, m_server, host, port);
    attach(tcp);
    m_tcpClients.insert(port, tcp);
    return tcp;
}

bool KorbRdvAssembly::createConnect()
{
    // A connection waits in a nested event loop: the table is walked as a
    // copy, and an object deleted meanwhile is left alone.
    const QPointer<KorbRdvAssembly> self(this);
    const QList<QPointer<KorbRdvStreamerTcp>> clients = m_tcpClients.values();
    for (const QPointer<KorbRdvStreamerTcp> &tcp : clients) {
        if (tcp)
            tcp->rearm();
        if (!self)
            return false;
    }
    bool ok = true;
    quint16 *const ports = m_options.udpPorts;
    if (ports[0] && ports[1]) {
        delete m_udp;
        m_udp = new KorbRdvStreamerUdp(m_owner, m_server, m_server, ports[0], ports[1]);
        m_udp->setLocalAddress(QHostAddress(QHostAddress::AnyIPv4));
        attach(m_udp);
        ok = m_udp->bind();
    }
    // Cleared so that a second call does not open a second receiver.
    ports[0] = ports[1] = 0;
    return ok;
}

void KorbRdvAssembly::pause()
{
    for (const QPointer<KorbRdvStreamerTcp> &tcp : qAsConst(m_tcpClients))
        if (tcp)
            tcp->stop();
}

KorbRdvHealth::Figures KorbRdvAssembly::healthFigures() const
{
    KorbRdvHealth::Figures f;
    f.packetsBuilt = WebSocketServer::broadcastCount();
    const int tls = m_server->tlsClientCount();
    f.wsClients = {{"plain", m_server->clientCount() - tls}, {"tls", tls}};
    f.packetsReplaced = m_server->replacedPackets();
    for (int i = 0; i < KorbRdvWsListener::Refusals; ++i) {
        const auto reason = KorbRdvWsListener::Refusal(i);
        f.clientsRefused.append({KorbRdvWsListener::refusalName(reason), m_server->refusals(reason)});
    }
    f.ingestToSend = m_server->ingestToSend();
    f.publishing = m_publisher != nullptr;
    if (m_publisher)
        f.brokerDropped = m_publisher->link()->droppedPublishes();
    f.recording = m_recorder != nullptr;
    if (m_recorder) {
        f.recordBytesWritten = m_writer->streamBytesWritten();
        f.recordFiles = m_writer->streamFiles();
        f.recordFramesDropped = m_recorder->framesDropped();
    }
    const auto recent = [this](qint64 ageMs) {
        return ageMs >= 0 && ageMs < qint64(m_options.healthSilenceS) * 1000;
    };
    if (m_edge) {
        // The edge builds nothing: what it takes are packets, handed on as they are.
        f.source = QStringLiteral("mqtt");
        f.framesAccepted = m_edge->packetsReceived();
        f.packetsBuilt = m_edge->packetsForwarded();
        f.lastFrameAgeMs = m_edge->lastFrameAgeMs();
        f.sourceUp = m_edge->link()->isUp() && recent(f.lastFrameAgeMs);
    } else if (m_options.replay()) {
        f.source = QStringLiteral("file");
        f.framesAccepted = m_playback->scanner().framesAccepted();
        f.lastFrameAgeMs = m_playback->lastFrameAgeMs();
        // A recording plays whenever anyone listens; one without frames stops.
        f.sourceUp = m_playback->isLoaded() && (m_playback->isPlaying() || m_server->consumerCount() == 0);
    } else if (m_udp || m_options.udp()) {
        f.source = QStringLiteral("udp");
        const KorbRdvStreamerUdp::Totals totals = KorbRdvStreamerUdp::totals();
        f.datagramsAccepted = totals.udpOk;
        f.datagramsDropped = totals.udpEr;
        if (m_udp) {
            f.framesAccepted = m_udp->scanner().framesAccepted();
            f.kernelDrops = KorbRdvHealth::kernelDrops(m_udp->socketDescriptors());
            f.lastFrameAgeMs = m_udp->lastFrameAgeMs();
        }
        f.sourceUp = recent(f.lastFrameAgeMs);
    } else {
        f.source = QStringLiteral("tcp");
        for (const QPointer<KorbRdvStreamerTcp> &tcp : m_tcpClients) {
            if (!tcp)
                continue;
            f.framesAccepted += tcp->scanner().framesAccepted();
            const qint64 age = tcp->lastFrameAgeMs();
            if (age >= 0 && (f.lastFrameAgeMs < 0 || age < f.lastFrameAgeMs))
                f.lastFrameAgeMs = age;
        }
        f.sourceUp = recent(f.lastFrameAgeMs);
    }
    return f;
}
