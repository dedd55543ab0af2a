#include "src/korb_rdv_tcp_cli.h"

#include "logger/korb_log.h"
#include "src/korb_host_port.h"
#include "src/korb_rdv_settings.h"

#include <QElapsedTimer>
#include <QEventLoop>
#include <QHostAddress>
#include <QNetworkProxy>
#include <QPointer>
#include <QSslError>
#include <QSslSocket>
#include <QTcpSocket>
#include <QThread>

namespace {
// Slice of the connection wait; longer waits use a hundredth of the timeout.
constexpr int DefaultSliceMs = 30;
constexpr int MaxSliceMs = 60;
constexpr int LongWaitMs = 3000;

bool connecting(QAbstractSocket::SocketState s)
{
    return s == QAbstractSocket::HostLookupState || s == QAbstractSocket::ConnectingState;
}
} // namespace

KorbRdvStreamerTcp::KorbRdvStreamerTcp(QObject *parent, KorbRdvSink *sink, QObject *commandSource,
                                       const QString &host, quint16 port)
    : KorbRdvSource(parent, sink, commandSource, WatchdogMs, KorbRdvScanner::Pacing::Stream),
      m_port(port ? port : Korb::DefaultPort),
      m_host(host.isEmpty() ? QString::fromLatin1(Korb::DefaultDeviceAddress) : host)
{
    qRegisterMetaType<QAbstractSocket::SocketError>("QAbstractSocket::SocketError");
    qRegisterMetaType<QAbstractSocket::SocketState>("QAbstractSocket::SocketState");
    qRegisterMetaType<QList<QSslError>>("QList<QSslError>");
    setObjectName(QStringLiteral("rdv_tcp_cli_%1").arg(m_port));
    m_reconnect.setSingleShot(true);
    m_reconnect.setInterval(ReconnectDelayMs);
    connect(&m_reconnect, SIGNAL(timeout()), this, SLOT(connectToServer()));
    m_scan.resetBuffer(0);
}

KorbRdvStreamerTcp::~KorbRdvStreamerTcp()
{
    m_stopped = true;
    m_reconnect.stop();
    stopWatchdog();
    if (m_socket) {
        // The socket's own teardown must not call back into a half-destroyed
        // client.
        m_socket->disconnect(this);
        m_socket->abort();
        delete m_socket;
        m_socket = nullptr;
    }
}

QAbstractSocket::SocketState KorbRdvStreamerTcp::state() const
{
    return m_socket ? m_socket->state() : QAbstractSocket::UnconnectedState;
}

qint64 KorbRdvStreamerTcp::pendingBytes() const
{
    return m_socket ? m_socket->bytesAvailable() : 0;
}

bool KorbRdvStreamerTcp::receiving() const
{
    return state() == QAbstractSocket::ConnectedState;
}

void KorbRdvStreamerTcp::ensureSocket()
{
    if (m_socket)
        return;
    m_socket = new QSslSocket(this);
    // The device is reached directly, never through a proxy.
    m_socket->setProxy(QNetworkProxy::NoProxy);
    connect(m_socket, SIGNAL(readyRead()), this, SLOT(readyRead()));
    connect(m_socket, SIGNAL(disconnected()), this, SLOT(disconnected()));
    connect(m_socket, SIGNAL(error(QAbstractSocket::SocketError)), this,
            SLOT(error(QAbstractSocket::SocketError)));
    connect(m_socket, SIGNAL(connected()), this, SLOT(ReceiveBuffer()));
}

void KorbRdvStreamerTcp::rearm()
{
    m_stopped = false;
    connectToServer();
}

void KorbRdvStreamerTcp::stop()
{
    m_stopped = true;
    m_reconnect.stop();
    closeConnection();
}

bool KorbRdvStreamerTcp::connectToServer()
{
    return connectToServer(m_host, m_port, ConnectTimeoutMs);
}

bool KorbRdvStreamerTcp::connectToServer(const QString &host, quint16 port, int timeoutMs)
{
    if (port == 0) {
        KLOG(this, -1, tr("порт не определен"));
        return false;
    }
    m_reconnect.stop();
    ensureSocket();
    // The wait below runs a nested event loop whose events may delete this
    // client; nothing of it is touched after that.
    const QPointer<KorbRdvStreamerTcp> self(this);
    ++m_inConnect;

    const QAbstractSocket::SocketState was = m_socket->state();
    if (was == QAbstractSocket::ConnectedState || connecting(was)) {
        if (m_abort == 0)
            m_abort = 1;
        if (connecting(was))
            m_socket->abort();
        else
            m_socket->disconnectFromHost();
    }
    m_socket->close();
    if (m_socket->state() != QAbstractSocket::UnconnectedState)
        m_socket->abort(); // unsent bytes must not keep the socket closing
    m_abort = 0;

    m_host = host;
    m_port = port;
    m_socket->connectToHost(host, port, QIODevice::ReadWrite, QAbstractSocket::AnyIPProtocol);
    const bool ok = waitForConnection(timeoutMs);
    if (!self)
        return false;
    --m_inConnect;

    const int version =
        !m_socket ? 0 : (m_socket->localAddress().protocol() == QAbstractSocket::IPv6Protocol ? 6 : 4);
    const QString message =
        QStringLiteral("TcpIpV%1: ").arg(version) +
        tr("%1 к %2://%3:%4")
            .arg(ok ? tr("подсоединился") : tr("не подсоединился"), QStringLiteral("tcp"), host)
            .arg(port);
    if (ok) {
        m_failures = 0;
        KLOG(this, 1, message);
        return true;
    }
    // A device that stays away is retried every second: the log line folds,
    // and the console hears only about the first failure of a series.
    ++m_failures;
    KLOGF(this, -1, message);
    if (m_failures == 1)
        KTRACE << message << (m_socket ? m_socket->errorString() : QString());
    scheduleReconnect(tr("нет соединения"));
    return false;
}

bool KorbRdvStreamerTcp::waitForConnection(int timeoutMs)
{
    if (!m_socket)
        return false;
    int slice = DefaultSliceMs;
    if (timeoutMs >= LongWaitMs)
        slice = qMin(timeoutMs / 100, MaxSliceMs);
    const QPointer<KorbRdvStreamerTcp> self(this);
    QElapsedTimer clock;
    clock.start();
    for (;;) {
        if (m_abort == 1)
            return false;
        {
            // Events keep flowing during the wait; it ends early when the
            // connection comes up or fails.
            QEventLoop loop;
            QTimer::singleShot(slice, &loop, &QEventLoop::quit);
            connect(m_socket, &QAbstractSocket::connected, &loop, &QEventLoop::quit);
            connect(m_socket, &QAbstractSocket::errorOccurred, &loop, &QEventLoop::quit);
            loop.exec();
        }
        // The loop's events may have deleted this client.
        if (!self || !m_socket)
            return false;
        const QAbstractSocket::SocketState s = m_socket->state();
        if (s == QAbstractSocket::ConnectedState)
            return true;
        const QAbstractSocket::SocketError e = m_socket->error();
        if (!connecting(s) && (e == QAbstractSocket::ConnectionRefusedError ||
                               e == QAbstractSocket::HostNotFoundError || e == QAbstractSocket::NetworkError))
            return false;
        QThread::msleep(ulong(slice));
        if (clock.elapsed() >= timeoutMs || !connecting(m_socket->state())) {
            if (m_socket->state() == QAbstractSocket::ConnectedState)
                return true;
            KTRACE << QStringLiteral("%1:%3 %2").arg(m_host).arg(int(m_socket->state())).arg(m_port);
            return false;
        }
    }
}

void KorbRdvStreamerTcp::closeConnection()
{
    if (m_socket) {
        m_abort = 1;
        if (m_socket->state() == QAbstractSocket::ConnectedState)
            m_socket->disconnectFromHost();
        if (m_socket->state() != QAbstractSocket::UnconnectedState)
            m_socket->abort();
        m_socket->close();
        m_abort = 0;
    }
    KLOG(this, 2, QStringLiteral("closeConnection localhost -> %1:%2").arg(m_host).arg(m_port));
}

void KorbRdvStreamerTcp::ReceiveBuffer()
{
    if (!m_socket)
        return;
    // Both halved: the kernel reports twice the size set.
    const int before = m_socket->socketOption(QAbstractSocket::ReceiveBufferSizeSocketOption).toInt() / 2;
    const int granted = requestReceiveBuffer(m_socket->socketDescriptor());
    KLOG(this, 2, tr("буфер приёма: %1 kB (default)").arg(before / 1024));
    KLOG(this, 2, tr("буфер приёма: %1 kB (used)").arg(granted / 1024));
}

bool KorbRdvStreamerTcp::testRemotePort(const QString &hostPort)
{
    const Korb::HostPort address = Korb::splitHostPort(hostPort);
    if (!address.separator) {
        KLOG(this, 0, tr("не найден разделитель : (%1)").arg(hostPort));
        return false;
    }
    const QString &host = address.host;
    quint16 port = 0;
    if (!Korb::parsePort(address.port, &port)) {
        KLOG(this, 0, tr("порт не определен"));
        return false;
    }
    QTcpSocket probe;
    probe.setProxy(QNetworkProxy::NoProxy);
    probe.connectToHost(host, port);
    const bool up = probe.waitForConnected(ProbeTimeoutMs);
    probe.abort();
    KLOG(this, 2, tr("порт %1:%2 %3").arg(host).arg(port).arg(up ? tr("доступен") : tr("недоступен")));
    return up;
}

void KorbRdvStreamerTcp::scheduleReconnect(const QString &why)
{
    if (m_stopped)
        return;
    KLOGF(this, 2,
          tr("%1: повторное подключение к %2:%3 через %4 мс")
              .arg(why, m_host)
              .arg(m_port)
              .arg(ReconnectDelayMs));
    m_reconnect.start();
}

void KorbRdvStreamerTcp::disconnected()
{
    // Teardown by connectToServer, closeConnection or stop is not a loss.
    if (m_abort || m_inConnect || m_stopped)
        return;
    KLOGF(this, 1, tr("соединение с %1:%2 закрыто").arg(m_host).arg(m_port));
    scheduleReconnect(tr("соединение закрыто"));
}

void KorbRdvStreamerTcp::error(QAbstractSocket::SocketError err)
{
    // Failures of a connect in progress are reported by connectToServer.
    if (m_abort || m_inConnect || m_stopped || !m_socket)
        return;
    KLOGF(this, 1, tr("ошибка сокета TCP (%1): %2").arg(int(err)).arg(m_socket->errorString()));
    if (m_socket->state() == QAbstractSocket::UnconnectedState)
        scheduleReconnect(tr("ошибка сокета"));
}

void KorbRdvStreamerTcp::readyRead()
{
    noteData();
    // Only the first read into a fresh buffer describes its first frame.
    bool verbose = ensureBuffer();
    if (!m_socket)
        return;
    for (;;) {
        const qint64 available = m_socket->bytesAvailable();
        // Less than one frame's worth waits in the socket for more.
        if (available <= 0 || available < m_scan.frameSize())
            return;
        const int n = int(qMin(qMin(available, MaxReadChunk), qint64(m_scan.charBuffSize())));
        char *const window = m_scan.reserve(n);
        if (!window)
            return;
        const qint64 got = m_socket->read(window, n);
        if (got < n) {
            KTRACE << "read" << n << got;
            return;
        }
        markIngest();
        m_scan.commit(n, verbose);
        noteDelivered(m_scan.framesAccepted());
        verbose = false;
    }
}
