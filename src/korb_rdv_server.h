#pragma once

#include "korb_version.h"
#include "src/korb_rdv_health.h"

#include <QHostAddress>
#include <QMap>
#include <QObject>
#include <QPointer>
#include <QSharedMemory>
#include <QString>
#include <QStringList>

class QFileSystemWatcher;
class QTimer;
class WebSocketServer;
class KorbRdvStreamerTcp;
class KorbRdvStreamerUdp;
class KorbRdvMqttEdge;
class KorbRdvMqttPublisher;

// The one application object of the daemon: reads the application's own
// command line, owns the WebSocket server and the data sources, and runs the
// start-up and shut-down sequence.
class KorbRdvStreamer : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY(KorbRdvStreamer)

public:
    static constexpr const char *ProgramName = "KorbRdv_streamer";
    static constexpr const char *Version = KORB_VERSION;
    static constexpr const char *DefaultInstanceName = "Korb.RDV2";
    // Smallest send interval -interval_ms= accepts.
    static constexpr int MinSendIntervalMs = 2;
    // A device reply to a TCP connect is expected within this time.
    static constexpr int DeviceConnectTimeoutMs = 3000;

    // `underService` tells that the service framework runs the object, as
    // the instance `serviceName` (DefaultInstanceName when empty);
    // `arguments` is the process's command line (tests pass their own).
    explicit KorbRdvStreamer(QObject *parent, bool underService = false,
                             const QStringList &arguments = QStringList(),
                             const QString &serviceName = QString());
    ~KorbRdvStreamer() override;

    // Re-arms the TCP clients and opens the UDP receiver when both ports are set.
    bool createConnect();
    // Service pause: stops the TCP clients and removes the pid file.
    void pause();

    // What the command line settled (read by the service wrapper and tests).
    quint16 port() const { return m_port; }
    QString deviceHost() const { return m_deviceHost; }
    quint16 devicePort() const { return m_devicePort; }
    bool replay() const { return m_replay; }
    QString replayFile() const { return m_replayFile; }
    bool noFile() const { return m_noFile; }
    QString configFile() const { return m_configFile; }
    quint16 udpPort1() const { return m_udpPorts[0]; }
    quint16 udpPort2() const { return m_udpPorts[1]; }
    int maxClients() const { return m_maxClients; }
    bool logThresholdGiven() const { return m_ltGiven; }
    bool logDirGiven() const { return m_ldGiven; }
    qint8 serviceFlag() const { return m_serviceFlag; }
    bool locked() const { return m_locked; }
    QString label() const;
    QString pidFilePath();
    WebSocketServer *server() const { return m_server; }
    KorbRdvStreamerUdp *udpReceiver() const { return m_udp; }
    int tcpClientCount() const { return m_tcpClients.size(); }
    QFileSystemWatcher *configWatcher() const { return m_watcher; }
    KorbRdvMqttPublisher *mqttPublisher() const { return m_publisher; }
    KorbRdvMqttEdge *mqttEdge() const { return m_edge; }
    // What the health report says right now.
    KorbRdvHealth::Figures healthFigures() const;
    void setReadingSuppressed(bool on) { m_readingSuppressed = on; }

signals:
    void finished();

public slots:
    void halt();
    bool init();
    void end();
    void restart();
    void final();
    QString tempPath();
    void all_start();
    void iniR(const QString &path);
    void slotTimerOneSecond();
    void del(QObject *object);

private:
    void parseArguments(const QStringList &arguments);
    bool takeInstanceLock();
    // The common part of halt() and end(), logged in the name of `function`.
    void stopSequence(const char *function, const QString &firstText);
    void writeBanner();
    bool writePidFile();
    void createTcpClient();
    // The health report, and the broker links of -mqtt= and -mqtt-sub=;
    // false for an option that names no broker or topic.
    bool startMqtt();

    qint8 m_serviceFlag = 0;
    QString m_serviceName;
    quint16 m_port = 0;
    quint16 m_securePort = 0;
    bool m_noFile = false;
    bool m_replay = false;
    bool m_ltGiven = false;
    bool m_ldGiven = false;
    bool m_readingSuppressed = false;
    bool m_locked = false;
    bool m_fatal = false;
    bool m_destroying = false;
    QString m_configFile;
    QString m_deviceHost;
    quint16 m_devicePort = 0;
    QString m_replayFile;
    quint16 m_udpPorts[2] = {0, 0};
    int m_maxClients;
    QTimer *m_wakeUpper = nullptr;
    WebSocketServer *m_server = nullptr;
    KorbRdvStreamerUdp *m_udp = nullptr;
    QMap<int, QPointer<KorbRdvStreamerTcp>> m_tcpClients;
    QSharedMemory m_lock;
    QFileSystemWatcher *m_watcher = nullptr;
    QString m_mqttTarget; // -mqtt=HOST[:PORT]
    QString m_mqttSource; // -mqtt-sub=HOST[:PORT]/TOPIC
    KorbRdvMqttPublisher *m_publisher = nullptr;
    KorbRdvMqttEdge *m_edge = nullptr;
    KorbRdvHealth *m_health = nullptr;
};
