#include "support/streamer_process.h"

#include "service/korb_service_controller.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QElapsedTimer>
#include <QRandomGenerator>
#include <QTcpServer>
#include <QTcpSocket>
#include <QThread>
#include <QUdpSocket>

#include <csignal>
#include <unistd.h>

namespace {
// Instance names of concurrent runs never meet: they name the lock, the
// control socket and the pid file.
QString uniqueName(const QString &stem)
{
    static int counter = 0;
    return QStringLiteral("%1%2x%3x%4")
        .arg(stem)
        .arg(::getpid())
        .arg(++counter)
        .arg(QRandomGenerator::global()->bounded(100000));
}
} // namespace

bool ControlClient::connectTo(const QString &path)
{
    socket.connectToServer(path);
    return socket.waitForConnected(3000);
}

QByteArray ControlClient::exchange(const QByteArray &bytes, int expected)
{
    socket.write(bytes);
    QByteArray answer;
    const QDeadlineTimer deadline(5000);
    while (answer.size() < expected &&
           (socket.bytesAvailable() > 0 || socket.waitForReadyRead(int(deadline.remainingTime()))))
        answer += socket.readAll();
    return answer;
}

StreamerProcess::StreamerProcess() : m_name(uniqueName(QStringLiteral("korbe2e"))) {}

StreamerProcess::~StreamerProcess()
{
    if (m_process.state() != QProcess::NotRunning) {
        m_process.terminate();
        if (!m_process.waitForFinished(5000)) {
            m_process.kill();
            m_process.waitForFinished(2000);
        }
    }
    // A service process that crashed leaves its control socket behind.
    QFile::remove(controlSocketPath());
}

quint16 StreamerProcess::freeTcpPort()
{
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost, 0);
    return probe.serverPort();
}

quint16 StreamerProcess::freeUdpPort()
{
    QUdpSocket probe;
    probe.bind(QHostAddress(QHostAddress::LocalHost), 0);
    return probe.localPort();
}

QString StreamerProcess::url() const
{
    return QStringLiteral("ws://127.0.0.1:%1").arg(m_port);
}

bool StreamerProcess::start(const QStringList &extra, QString *why)
{
    return launch({QStringLiteral("-e")}, extra, QProcessEnvironment::systemEnvironment(), why);
}

bool StreamerProcess::startService(const QStringList &extra, QString *why)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("KORBSERVICE_RUN"), QStringLiteral("1"));
    // The service process closes its error stream before it ends, so a
    // sanitizer's report at exit is written to a file instead.
    for (const QString &name : {QStringLiteral("ASAN_OPTIONS"), QStringLiteral("UBSAN_OPTIONS")}) {
        const QString options = environment.value(name);
        environment.insert(name, (options.isEmpty() ? options : options + QLatin1Char(':')) +
                                     QStringLiteral("log_path=") +
                                     m_dir.filePath(QStringLiteral("sanitizer")));
    }
    return launch({}, extra, environment, why);
}

QString StreamerProcess::sanitizerReport() const
{
    QString text;
    const QDir dir(m_dir.path());
    for (const QString &name : dir.entryList({QStringLiteral("sanitizer.*")}, QDir::Files)) {
        QFile f(dir.filePath(name));
        if (f.open(QIODevice::ReadOnly))
            text += QString::fromLocal8Bit(f.readAll());
    }
    return text;
}

QString StreamerProcess::controlSocketPath() const
{
    return KorbServiceController::socketPath(m_name);
}

bool StreamerProcess::launch(const QStringList &mode, const QStringList &extra,
                             const QProcessEnvironment &environment, QString *why)
{
    if (!m_dir.isValid()) {
        *why = QStringLiteral("no temporary directory");
        return false;
    }
    m_port = freeTcpPort();
    // The name comes first: an extra "-nofile" would count as "-n" too.
    const QStringList args =
        mode + QStringList{QStringLiteral("-n"),  m_name,  QStringLiteral("-p"), QString::number(m_port),
                           QStringLiteral("-ld"), logDir()} +
        extra;
    m_process.setProcessChannelMode(QProcess::SeparateChannels);
    m_process.setProcessEnvironment(environment);
    m_process.start(QStringLiteral(KORB_STREAMER_BIN), args);
    if (!m_process.waitForStarted(5000)) {
        *why = QStringLiteral("the daemon did not start: ") + m_process.errorString();
        return false;
    }
    QElapsedTimer t;
    t.start();
    while (t.elapsed() < 15000) {
        if (m_process.state() == QProcess::NotRunning) {
            *why = QStringLiteral("the daemon ended: ") +
                   QString::fromLocal8Bit(m_process.readAllStandardError());
            return false;
        }
        QTcpSocket probe;
        probe.connectToHost(QHostAddress::LocalHost, m_port);
        if (probe.waitForConnected(200)) {
            probe.abort();
            return true;
        }
        QThread::msleep(50);
    }
    *why = QStringLiteral("the daemon did not listen on port %1").arg(m_port);
    return false;
}

QString StreamerProcess::logText() const
{
    QString text;
    const QDir dir(logDir());
    for (const QString &name : dir.entryList({QStringLiteral("*.txt")}, QDir::Files, QDir::Name)) {
        QFile f(dir.filePath(name));
        if (f.open(QIODevice::ReadOnly))
            text += QString::fromUtf8(f.readAll());
    }
    return text;
}

int StreamerProcess::stopWith(int signal)
{
    if (m_process.state() == QProcess::NotRunning)
        return -1;
    ::kill(pid_t(m_process.processId()), signal);
    if (!m_process.waitForFinished(10000))
        return -1;
    return m_process.exitStatus() == QProcess::NormalExit ? m_process.exitCode() : -1;
}

StreamerProcess::Result StreamerProcess::run(const QStringList &arguments, int timeoutMs)
{
    Result r;
    QProcess p;
    p.start(QStringLiteral(KORB_STREAMER_BIN), arguments);
    if (!p.waitForFinished(timeoutMs)) {
        p.kill();
        p.waitForFinished(2000);
        return r;
    }
    r.exitCode = p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1;
    r.out = p.readAllStandardOutput();
    r.err = p.readAllStandardError();
    return r;
}
