#include "src/korb_rdv_server.h"

#include "logger/korb_log.h"
#include "logger/korb_logger_light.h"
#include "src/korb_env.h"
#include "src/korb_host_port.h"
#include "src/korb_rdv_mqtt_edge.h"
#include "src/korb_rdv_mqtt_link.h"
#include "src/korb_rdv_mqtt_publisher.h"
#include "src/korb_rdv_settings.h"
#include "src/korb_rdv_tcp_cli.h"
#include "src/korb_rdv_tls_listener.h"
#include "src/korb_rdv_udp_cli.h"
#include "src/korb_rdv_wsserver.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QFileSystemWatcher>
#include <QLibraryInfo>
#include <QLocale>
#include <QSettings>
#include <QSysInfo>
#include <QTextCodec>
#include <QThread>
#include <QTimer>

namespace {

constexpr int StopStepMs = 25;

// Whole-word options that take their value from the next argument.
bool nextIsValue(const QStringList &args, int i)
{
    return i + 1 < args.size() && !args.at(i + 1).startsWith(QLatin1Char('-'));
}

// "-p" value: "0x.." is hexadecimal, otherwise decimal, else hexadecimal.
bool parsePortValue(const QString &text, uint *value)
{
    bool ok = false;
    if (text.size() > 2 && text.startsWith(QLatin1String("0x"), Qt::CaseInsensitive)) {
        *value = text.mid(2).toUInt(&ok, 16);
        return ok;
    }
    *value = text.toUInt(&ok, 10);
    if (!ok)
        *value = text.toUInt(&ok, 16);
    return ok;
}

// "HOST", "HOST:PORT", "[v6]:PORT" or a bare IPv6 address; the device's
// default port where none (or no valid one) is given.
void splitDeviceAddress(const QString &text, QString *host, quint16 *port)
{
    const Korb::HostPort address = Korb::splitHostPort(text);
    *host = address.host;
    if (!Korb::parsePort(address.port, port))
        *port = Korb::DefaultPort;
}

QString cpuFlag(bool on)
{
    return on ? QObject::tr("Да") : QObject::tr("Нет");
}

// The separator line of the stop sequence and of the configuration reading.
QString separator(char fill)
{
    return QString().leftJustified(133, QLatin1Char(fill));
}

} // namespace

KorbRdvStreamer::KorbRdvStreamer(QObject *parent, bool underService, const QStringList &arguments,
                                 const QString &serviceName)
    : QObject(parent), m_maxClients(WebSocketServer::DefaultMaxClients)
{
    setObjectName(QStringLiteral("server"));
    m_serviceFlag = underService ? 1 : 0;
    m_serviceName = serviceName.isEmpty() ? QString::fromLatin1(DefaultInstanceName) : serviceName;

    m_wakeUpper = new QTimer(this);
    m_wakeUpper->setObjectName(QStringLiteral("tmr_wakeUpper"));
    m_wakeUpper->setInterval(1000);
    connect(m_wakeUpper, &QTimer::timeout, this, &KorbRdvStreamer::slotTimerOneSecond);
    connect(m_wakeUpper, &QObject::destroyed, this, &KorbRdvStreamer::del);

    parseArguments(arguments.isEmpty() ? QCoreApplication::arguments() : arguments);

    // -p values of 0, 1 and the rejected ones end here as 65535.
    if (m_port == 0 || m_port > 65533)
        m_port = Korb::DefaultPort;
    if (m_deviceHost.isEmpty()) {
        m_deviceHost = QString::fromLatin1(Korb::DefaultDeviceAddress);
        m_devicePort = Korb::DefaultPort;
    }

    m_locked = takeInstanceLock();
    if (!(m_udpPorts[0] && m_udpPorts[1]))
        m_udpPorts[0] = m_udpPorts[1] = 0;

    m_server = new WebSocketServer(this, m_port);
    m_server->setMaxClients(m_maxClients);
    if (!m_server->start(m_port)) {
        KTRACE << "no listen ws port" << m_port;
        KLOG(this, -1,
             tr("не удалось открыть порт WebSocket %1: %2").arg(m_port).arg(m_server->errorString()));
        m_fatal = true;
    }
    // The TLS port fails on its own: the plain one serves whatever becomes of it.
    if (m_securePort && !m_fatal)
        KorbRdvTlsListener::open(m_server, m_securePort, Korb::tlsFiles(m_noFile ? QString() : m_configFile));
    if (!m_mqttSource.isEmpty() && (m_replay || m_udpPorts[0])) {
        KLOG(this, 1, tr("источник данных - брокер MQTT (-mqtt-sub=): -file= и -udp1=/-udp2= не действуют"));
        m_replay = false;
        m_udpPorts[0] = m_udpPorts[1] = 0;
    }
    if (m_replay && !m_server->setFileNm(m_replayFile))
        KLOG(this, 0, tr("файл воспроизведения не загружен: %1").arg(m_replayFile));
    if (!startMqtt())
        m_fatal = true;

    KTRACE << "RDK-2: "
           << QStringLiteral("%1 v.%2 ws port").arg(QLatin1String(ProgramName), QLatin1String(Version))
           << m_port;

    if (!m_locked || m_fatal) {
        // Another instance owns this port, or the port cannot be served:
        // leave with a failure status so that systemd may try again later.
        m_fatal = true;
        QTimer::singleShot(1, this, &KorbRdvStreamer::halt);
        return;
    }
    QMetaObject::invokeMethod(this, "all_start", Qt::QueuedConnection);
}

KorbRdvStreamer::~KorbRdvStreamer()
{
    KLOG(this, 1, tr("завершение работы сервера %1").arg(QLatin1String(ProgramName)));
    m_destroying = true;
    halt();
    KLOG(this, 1, tr("приложение завершено"));
    if (Korb::logThreshold > 3)
        KLOG(this, 4, QStringLiteral("destruct - %1").arg(Korb::lastHandledSignal));
    if (m_lock.isAttached())
        m_lock.detach();
}

void KorbRdvStreamer::parseArguments(const QStringList &args)
{
    for (int i = 1; i < args.size(); ++i) {
        const QString &a = args.at(i);
        const QString value = a.mid(a.indexOf(QLatin1Char('=')) + 1);
        if (a.startsWith(QLatin1String("-addr="))) {
            splitDeviceAddress(value, &m_deviceHost, &m_devicePort);
        } else if (a.startsWith(QLatin1String("-file="))) {
            const QFileInfo fi(Korb::getAbsPath(value));
            if (!value.isEmpty() && fi.isFile()) {
                m_replay = true;
                m_replayFile = fi.absoluteFilePath();
            } else {
                KTRACE << "err arg file: " << value;
            }
        } else if (a.startsWith(QLatin1String("-interval_ms="))) {
            bool ok = false;
            const uint v = value.toUInt(&ok);
            if (ok && v >= uint(MinSendIntervalMs) && v <= 65535) {
                Korb::sendIntervalMs = quint16(v);
            } else {
                KTRACE << "err arg interval_ms: " << value;
                KTRACE << "arg interval_ms default: " << Korb::DefaultSendIntervalMs;
                Korb::sendIntervalMs = Korb::DefaultSendIntervalMs;
            }
        } else if (a.startsWith(QLatin1String("-mqtt="))) {
            m_mqttTarget = value;
        } else if (a.startsWith(QLatin1String("-mqtt-sub="))) {
            m_mqttSource = value;
        } else if (a.startsWith(QLatin1String("-max_clients="))) {
            bool ok = false;
            const int v = value.toInt(&ok);
            if (ok && v >= 1)
                m_maxClients = v;
            else
                KTRACE << "err arg max_clients: " << value;
        } else if (a.startsWith(QLatin1String("-udp1=")) || a.startsWith(QLatin1String("-udp2="))) {
            const int n = a.at(4) == QLatin1Char('1') ? 0 : 1;
            bool ok = false;
            const uint v = value.toUInt(&ok);
            if (ok && v >= 1 && v <= 65534) {
                m_udpPorts[n] = quint16(v);
            } else if (n == 0) {
                KTRACE << "err arg udp1: " << value;
                KTRACE << "arg udp port 1 default: 0";
            } else {
                KTRACE << "err arg udp2: " << value;
                KTRACE << "arg udp port 2 default: disable";
            }
        } else if (a.compare(QLatin1String("-nofile"), Qt::CaseInsensitive) == 0) {
            m_noFile = true;
            m_readingSuppressed = true;
        } else if (a.compare(QLatin1String("-cfg"), Qt::CaseInsensitive) == 0) {
            if (nextIsValue(args, i)) {
                QString name = args.at(++i);
                if (QFileInfo(name).isRelative()) {
                    const QString etc = Korb::appDir() + QStringLiteral("/../etc");
                    QDir().mkpath(etc);
                    name = etc + QLatin1Char('/') + name;
                }
                m_configFile = QFileInfo(name).absoluteFilePath();
            }
        } else if (a.compare(QLatin1String("-p"), Qt::CaseInsensitive) == 0) {
            if (nextIsValue(args, i)) {
                uint v = 0;
                if (parsePortValue(args.at(++i), &v))
                    m_port = v > 1 ? quint16(v & 0xFFFF) : 65535;
                else if (m_port == 0)
                    m_port = 65535;
            }
        } else if (a.compare(QLatin1String("-lt"), Qt::CaseInsensitive) == 0) {
            if (nextIsValue(args, i))
                Korb::logThreshold = args.at(++i).toInt(&m_ltGiven);
        } else if (a.compare(QLatin1String("-ld"), Qt::CaseInsensitive) == 0) {
            if (nextIsValue(args, i)) {
                const QString dir = Korb::getAbsPath(args.at(++i));
                if (!dir.isEmpty()) {
                    KorbLoggerLight::instance()->setLogDir(dir);
                    m_ldGiven = true;
                }
            }
        } else if (a.compare(QLatin1String("-tc"), Qt::CaseInsensitive) == 0) {
            if (nextIsValue(args, i)) {
                if (QTextCodec *codec = QTextCodec::codecForName(args.at(++i).toLatin1()))
                    KorbLoggerLight::instance()->setCodec(codec);
            }
        } else if (a.compare(QLatin1String("-ps"), Qt::CaseInsensitive) == 0) {
            if (nextIsValue(args, i)) {
                const QString text = args.at(++i);
                uint v = 0;
                if (parsePortValue(text, &v) && v >= 1 && v <= 65535)
                    m_securePort = quint16(v);
                else
                    KTRACE << "err arg ps: " << text;
            }
        }
    }
    if (m_configFile.isEmpty())
        m_configFile = QFileInfo(Korb::appDir() + QStringLiteral("/../etc/") + QLatin1String(ProgramName) +
                                 QStringLiteral(".ini"))
                           .absoluteFilePath();
}

bool KorbRdvStreamer::takeInstanceLock()
{
    const QString key = QStringLiteral("%1-%2").arg(QLatin1String(ProgramName)).arg(m_port);
    // A segment left by a crashed instance goes away once its last user
    // detaches: attaching and detaching first clears such a stale segment.
    {
        QSharedMemory stale(key);
        if (stale.attach())
            stale.detach();
    }
    m_lock.setKey(key);
    if (m_lock.create(1))
        return true;
    KLOG(this, -1,
         tr("экземпляр %1 с портом %2 уже запущен: %3")
             .arg(QLatin1String(ProgramName))
             .arg(m_port)
             .arg(m_lock.errorString()));
    return false;
}

QString KorbRdvStreamer::label() const
{
    return m_serviceFlag > 0 ? tr("Служба: %1").arg(m_serviceName) : QString::fromLatin1(ProgramName);
}

QString KorbRdvStreamer::tempPath()
{
    const QString dir = Korb::getAbsPath(QStringLiteral("../tmp"));
    QDir().mkpath(dir);
    return dir;
}

QString KorbRdvStreamer::pidFilePath()
{
    return tempPath() + QStringLiteral("/%1-%2.pid").arg(QLatin1String(ProgramName)).arg(m_port);
}

void KorbRdvStreamer::all_start()
{
    if (m_replay)
        return;
    const QPointer<KorbRdvStreamer> self(this);
    if (!init() && self)
        KLOG(this, -1, tr("выход из приложения"));
}

void KorbRdvStreamer::writeBanner()
{
    const QString build = QStringLiteral(__DATE__ " " __TIME__);
    KLOG(this, 1,
         tr("%1 | Версия ПО: %2 v.%3 (сборка от %4) | Revision SVN %5 | Powered by Qt%6-%7")
             .arg(QLatin1String(ProgramName), QStringLiteral("Korb"), QLatin1String(Version), build,
                  QStringLiteral(KORB_REVISION), QStringLiteral(QT_VERSION_STR),
                  QStringLiteral(KORB_COMPILER_TAG)));
    KLOG(this, 1, tr("Версия фреймворка Qt:\t%1").arg(QLatin1String(qVersion())));
    QT_WARNING_PUSH
    QT_WARNING_DISABLE_DEPRECATED
    KLOG(this, 1, tr("Тип лицензирования Qt:\t%1").arg(QLibraryInfo::licensee()));
    QT_WARNING_POP
    KLOG(this, 1, tr("Версия %1:\t%2").arg(QLatin1String(ProgramName), QLatin1String(Version)));
    KLOG(this, 1, tr("Ревизия %1:\tr%2").arg(QStringLiteral("SVN"), QStringLiteral(KORB_REVISION)));
    KLOG(this, 1, tr("Компилятор:\t%1%2").arg(QStringLiteral("gcc"), QStringLiteral(__VERSION__)));
    KLOG(this, 1, tr("Скомпилировано для:\t%1").arg(QSysInfo::buildCpuArchitecture()));
    KLOG(this, 1, tr("Время сборки:\t%1").arg(build));
    const QLocale locale;
    KLOG(this, 1,
         tr("Установленная локаль:\t%1 (%2-%3)")
             .arg(locale.name(), locale.nativeLanguageName(), locale.nativeCountryName()));

    struct Feature
    {
        const char *name;
        bool on;
    };
    __builtin_cpu_init();
    const Feature features[] = {
        {"SSE2", __builtin_cpu_supports("sse2") != 0},
        {"SSSE3", __builtin_cpu_supports("ssse3") != 0},
        {"SSE4.1", __builtin_cpu_supports("sse4.1") != 0},
        {"SSE4.2", __builtin_cpu_supports("sse4.2") != 0},
        {"AVX", __builtin_cpu_supports("avx") != 0},
        {"AVX2", __builtin_cpu_supports("avx2") != 0},
        {"AVX512F", __builtin_cpu_supports("avx512f") != 0},
        {"AVX512BW", __builtin_cpu_supports("avx512bw") != 0},
        {"AVX512CD", __builtin_cpu_supports("avx512cd") != 0},
        {"AVX512DQ", __builtin_cpu_supports("avx512dq") != 0},
        {"AVX512ER", __builtin_cpu_supports("avx512er") != 0},
        {"AVX512IFMA", __builtin_cpu_supports("avx512ifma") != 0},
        {"AVX512PF", __builtin_cpu_supports("avx512pf") != 0},
        {"AVX512VBMI", __builtin_cpu_supports("avx512vbmi") != 0},
        {"AVX512VL", __builtin_cpu_supports("avx512vl") != 0},
    };
    for (const Feature &f : features)
        KLOG(this, 1, tr("Поддержка %1:\t%2").arg(QLatin1String(f.name), cpuFlag(f.on)));
}

bool KorbRdvStreamer::writePidFile()
{
    QFile pid(pidFilePath());
    if (!pid.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        KLOG(this, 0, tr("не записан файл %1: %2").arg(pid.fileName(), pid.errorString()));
        return false;
    }
    pid.write(QByteArray::number(QCoreApplication::applicationPid()) + '\n');
    return true;
}

void KorbRdvStreamer::createTcpClient()
{
    // With the default address the device port is our own WebSocket port:
    // connecting would only talk to ourselves.
    const QHostAddress device(m_deviceHost);
    if ((device.isLoopback() || m_deviceHost == QLatin1String("localhost")) && m_devicePort == m_port) {
        KLOG(this, 1,
             tr("TCP-клиент не создан: адрес устройства %1:%2 совпадает с собственным портом WebSocket")
                 .arg(m_deviceHost)
                 .arg(m_devicePort));
        return;
    }
    auto *tcp = new KorbRdvStreamerTcp(this, m_server, m_server, m_deviceHost, m_devicePort);
    connect(tcp, &QObject::destroyed, this, &KorbRdvStreamer::del);
    m_tcpClients.insert(m_devicePort, tcp);
}

bool KorbRdvStreamer::startMqtt()
{
    m_health = new KorbRdvHealth(this, [this] { return healthFigures(); });
    QString subHost, pubHost;
    quint16 subPort = 0, pubPort = 0;
    QByteArray topic;
    const QByteArray state = Rdv::mqttTopic(m_serviceName, Rdv::MqttStateLeaf);
    if (!m_mqttSource.isEmpty() && !KorbRdvMqttEdge::parseSource(m_mqttSource, &subHost, &subPort, &topic)) {
        KTRACE << "err arg mqtt-sub: " << m_mqttSource;
        KLOG(this, -1, tr("-mqtt-sub=%1: нужен HOST[:PORT]/TOPIC").arg(m_mqttSource));
        return false;
    }
    if (!m_mqttTarget.isEmpty() && (!KorbRdvMqttLink::parseTarget(m_mqttTarget, &pubHost, &pubPort) ||
                                    !KorbRdvMqttLink::validTopic(state, false))) {
        KTRACE << "err arg mqtt: " << m_mqttTarget;
        KLOG(this, -1, tr("-mqtt=%1: нужен HOST[:PORT] и имя экземпляра без '+' и '#'").arg(m_mqttTarget));
        return false;
    }
    if (!m_mqttSource.isEmpty())
        m_edge = new KorbRdvMqttEdge(this, m_server, m_server, m_serviceName, topic);
    if (!m_mqttTarget.isEmpty())
        m_publisher = new KorbRdvMqttPublisher(this, m_server, m_serviceName);
    // State and health go with the instance's packets, else with the edge's link.
    KorbRdvMqttLink *announcer = m_publisher ? m_publisher->link() : m_edge ? m_edge->link() : nullptr;
    if (announcer) {
        announcer->setPresenceTopic(state);
        const QByteArray stats = Rdv::mqttTopic(m_serviceName, Rdv::MqttStatsLeaf);
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

KorbRdvHealth::Figures KorbRdvStreamer::healthFigures() const
{
    KorbRdvHealth::Figures f;
    f.packetsBuilt = WebSocketServer::broadcastCount();
    f.wsClients = m_server->clientCount();
    f.packetsReplaced = m_server->replacedPackets();
    if (m_publisher)
        f.brokerDropped = m_publisher->link()->droppedPublishes();
    if (m_edge) {
        // The edge builds nothing: what it takes are packets, handed on as they are.
        f.source = QStringLiteral("mqtt");
        f.framesAccepted = m_edge->packetsReceived();
        f.packetsBuilt = m_edge->packetsForwarded();
    } else if (m_replay) {
        f.source = QStringLiteral("file");
        f.framesAccepted = m_server->playbackFrames();
    } else if (m_udp || m_udpPorts[0]) {
        f.source = QStringLiteral("udp");
        const KorbRdvStreamerUdp::Totals totals = KorbRdvStreamerUdp::totals();
        f.datagramsAccepted = totals.udpOk;
        f.datagramsDropped = totals.udpEr;
        if (m_udp) {
            f.framesAccepted = m_udp->scanner().framesAccepted();
            f.kernelDrops = KorbRdvHealth::kernelDrops(m_udp->socketDescriptors());
        }
    } else {
        f.source = QStringLiteral("tcp");
        for (const QPointer<KorbRdvStreamerTcp> &tcp : m_tcpClients)
            if (tcp)
                f.framesAccepted += tcp->scanner().framesAccepted();
    }
    return f;
}

bool KorbRdvStreamer::init()
{
    writeBanner();
    KLOG(this, 1, tr("установлен порог логирования: %1").arg(Korb::logThreshold));
    if (!writePidFile())
        return false;
    KLOG(this, 1, tr("инициализация завершена"));
    if (m_tcpClients.isEmpty() && !m_edge)
        createTcpClient();
    // The device connection waits in a nested event loop, whose events may
    // delete this object: nothing of it is touched after that.
    const QPointer<KorbRdvStreamer> self(this);
    if (!createConnect() || !self)
        return false;
    KLOG(this, 1, tr("установлен интервал отправки: %1").arg(Korb::sendIntervalMs));
    m_wakeUpper->start();
    iniR(QString());
    return true;
}

bool KorbRdvStreamer::createConnect()
{
    // A connection waits in a nested event loop: the table is walked as a
    // copy, and an object deleted meanwhile is left alone.
    const QPointer<KorbRdvStreamer> self(this);
    const QList<QPointer<KorbRdvStreamerTcp>> clients = m_tcpClients.values();
    for (const QPointer<KorbRdvStreamerTcp> &tcp : clients) {
        if (tcp)
            tcp->rearm();
        if (!self)
            return false;
    }
    bool ok = true;
    if (m_udpPorts[0] && m_udpPorts[1]) {
        delete m_udp;
        m_udp = new KorbRdvStreamerUdp(this, m_server, m_server, m_udpPorts[0], m_udpPorts[1]);
        m_udp->setLocalAddress(QHostAddress(QHostAddress::AnyIPv4));
        if (!m_udp->bind()) {
            KLOG(this, -1, tr("init() завершено с ошибкой"));
            m_fatal = true;
            QTimer::singleShot(1, this, &KorbRdvStreamer::halt);
            ok = false;
        }
    }
    // Cleared so that a second call does not open a second receiver.
    m_udpPorts[0] = m_udpPorts[1] = 0;
    return ok;
}

void KorbRdvStreamer::pause()
{
    for (const QPointer<KorbRdvStreamerTcp> &tcp : qAsConst(m_tcpClients))
        if (tcp)
            tcp->stop();
    QFile::remove(pidFilePath());
}

void KorbRdvStreamer::stopSequence(const char *function, const QString &firstText)
{
    // The lines are those of halt() or end(), and name it.
    const auto say = [this, function](const QString &text) {
        if (Korb::logAdmits(1))
            Korb::log(this, __FILE__, __LINE__, function, text, 1, false);
    };
    say(separator('-'));
    say(firstText);
    KorbLoggerLight *logger = KorbLoggerLight::instance();
    if (logger->hasAccumulated()) {
        say(tr("сбросить в лог накопившиеся сообщения"));
        say(separator('-'));
        logger->flushAccumulated();
        say(separator('-'));
        say(tr("фильтр сообщений сброшен"));
    }
    logger->resetFilter();
    // A timer of an object being destroyed never fires and would be left
    // behind when the event loop has already ended.
    if (!m_destroying)
        QTimer::singleShot(StopStepMs, this, &KorbRdvStreamer::final);
}

void KorbRdvStreamer::halt()
{
    (void)children(); // a snapshot taken and left alone
    stopSequence(__func__, tr("приступил к останову приложения"));
    KLOG(this, 1, tr("к останову приложения готов"));
}

void KorbRdvStreamer::end()
{
    stopSequence(__func__, tr("приступил к останову постов"));
    KLOG(this, -1, QString(54, QLatin1Char('#')));
    QTimer::singleShot(StopStepMs, this, &KorbRdvStreamer::final);
    KLOG(this, 1, tr("завершения работы постов окончено"));
}

void KorbRdvStreamer::restart()
{
    end();
    init();
}

void KorbRdvStreamer::final()
{
    KLOG(this, 1, tr("остановка приложения"));
    if (m_fatal) {
        // A start-up that cannot serve ends with a failure status.
        QTimer::singleShot(StopStepMs, this, [] { QCoreApplication::exit(1); });
        return;
    }
    QTimer::singleShot(StopStepMs, this, &KorbRdvStreamer::finished);
}

void KorbRdvStreamer::slotTimerOneSecond()
{
    // Only wakes the event loop once a second.
}

void KorbRdvStreamer::del(QObject *object)
{
    if (!object)
        return;
    const QString name = object->objectName().isEmpty()
                             ? QString::fromLatin1(object->metaObject()->className())
                             : object->objectName();
    KLOG(this, 5, tr("удален объект '%1'").arg(name));
    if (object == m_wakeUpper)
        m_wakeUpper = nullptr;
}

void KorbRdvStreamer::iniR(const QString &path)
{
    if (m_readingSuppressed)
        return;
    const QString etc = Korb::appDir() + QStringLiteral("/../etc");
    if (!Korb::setCurrentDir(etc))
        return;
    KorbLoggerLight::instance()->resetFilter();
    KLOG(this, 1, separator('~'));
    KLOG(this, 1,
         path.isEmpty() ? tr("считываются локальные ip-адреса и файл конфигурации")
                        : tr("конфигурационный файл был изменен"));
    const QString file = path.isEmpty() ? m_configFile : path;
    {
        QSettings settings(file, QSettings::IniFormat);
        settings.setIniCodec(QTextCodec::codecForName("System"));
        // The group is reserved for the device domains of a later version.
        settings.beginGroup(QStringLiteral("domains"));
        settings.endGroup();
        settings.sync();
    }
    // Deliberate pause that keeps the application responsive: an editor that
    // saves in several steps has finished before the next reading.
    // Events of the pause may delete this object; then the reading ends at
    // once and nothing of it is touched.
    const QPointer<KorbRdvStreamer> self(this);
    QElapsedTimer wait;
    wait.start();
    while (wait.elapsed() <= 349) {
        if (QCoreApplication::instance())
            QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        if (!self) {
            Korb::setCurrentDir(Korb::appDir());
            return;
        }
        QThread::msleep(10);
    }
    if (!m_watcher) {
        m_watcher = new QFileSystemWatcher(this);
        m_watcher->addPath(file);
        connect(m_watcher, &QFileSystemWatcher::fileChanged, this, &KorbRdvStreamer::iniR);
    }
    Korb::setCurrentDir(Korb::appDir());
    KLOG(this, 1, separator('~'));
}
