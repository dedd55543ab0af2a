#pragma once

#include "src/korb_rdv_health.h"
#include "src/korb_rdv_options.h"

#include <QMap>
#include <QObject>
#include <QPointer>
#include <QString>

class KorbRdvDiskWriter;
class KorbRdvMqttEdge;
class KorbRdvMqttPublisher;
class KorbRdvPlayback;
class KorbRdvRecorder;
class KorbRdvSource;
class KorbRdvStreamerTcp;
class KorbRdvStreamerUdp;
class WebSocketServer;

// The relay put together from its options: the WebSocket server with its
// ports (the sink), the one source that feeds it (a TCP device, the UDP
// receiver, a recording, or a broker topic), what watches or carries the
// packets beside the clients (the MQTT publisher, the health figures), and
// the disk writer through which the sources' dumps and the recorder of a
// live device's frames write. The parts it makes belong to `owner`, the
// streamer, which runs them through its start-up and stop sequence.
class KorbRdvAssembly : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY(KorbRdvAssembly)

public:
    explicit KorbRdvAssembly(QObject *owner, const KorbRdvOptions &options, const QString &instance);

    // The WebSocket server on its plain port, the TLS port beside it (which
    // fails on its own), the player of recordings; false, logged, when the
    // plain port cannot be opened.
    bool openPorts();
    // The source the options name, loaded or linked where it needs no
    // start-up (a recording, a broker topic), the disk writer and the
    // recorder, the publisher and the health figures; false, logged, for an
    // option that names no broker or topic.
    bool openSources();
    // The TCP client to the device, unless a broker topic is the source or
    // the device address is the relay's own WebSocket port; null then.
    KorbRdvStreamerTcp *createTcpClient();
    // Re-arms the TCP clients and opens the UDP receiver when both ports
    // are set, once; false when the receiver cannot bind.
    bool createConnect();
    // Stops the TCP clients until createConnect().
    void pause();

    const KorbRdvOptions &options() const { return m_options; }
    WebSocketServer *server() const { return m_server; }
    KorbRdvStreamerUdp *udpReceiver() const { return m_udp; }
    KorbRdvMqttPublisher *mqttPublisher() const { return m_publisher; }
    KorbRdvMqttEdge *mqttEdge() const { return m_edge; }
    int tcpClientCount() const { return m_tcpClients.size(); }
    // What the health report says right now.
    KorbRdvHealth::Figures healthFigures() const;

private:
    bool openBrokerLinks();
    // The disk writer, and the recorder when the options ask for one and
    // the source is a live device.
    void openRecorder();
    // A live source's dumps and frames go to the disk writer and the recorder.
    void attach(KorbRdvSource *source);

    QObject *const m_owner;
    KorbRdvOptions m_options;
    const QString m_instance;
    WebSocketServer *m_server = nullptr;
    KorbRdvPlayback *m_playback = nullptr;
    KorbRdvStreamerUdp *m_udp = nullptr;
    QMap<int, QPointer<KorbRdvStreamerTcp>> m_tcpClients;
    KorbRdvMqttPublisher *m_publisher = nullptr;
    KorbRdvMqttEdge *m_edge = nullptr;
    KorbRdvHealth *m_health = nullptr;
    KorbRdvDiskWriter *m_writer = nullptr;
    KorbRdvRecorder *m_recorder = nullptr;
};
