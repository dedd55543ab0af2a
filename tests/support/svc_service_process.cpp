#include "support/svc_service_process.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QFileInfo>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QThread>

#include <pwd.h>
#include <signal.h>
#include <unistd.h>

namespace SvcTest {

QString testServiceProgram()
{
    return QStringLiteral(KORB_TEST_PROGRAMS_DIR "/korb_test_service");
}

QString uniqueName(const QString &stem)
{
    static int counter = 0;
    return QStringLiteral("%1%2x%3x%4")
        .arg(stem)
        .arg(::getpid())
        .arg(++counter)
        .arg(QRandomGenerator::global()->bounded(100000));
}

QString socketPathFor(const QString &encodedName)
{
    const passwd *entry = ::getpwuid(::getuid());
    const QString login = entry ? QString::fromLocal8Bit(entry->pw_name) : QString::number(::getuid());
    return QStringLiteral("/var/tmp/%1.%2").arg(encodedName, login);
}

QStringList readLog(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

qint64 startedPid(const QString &logPath)
{
    static const QRegularExpression pidPattern(QStringLiteral("^start pid=(\\d+) "));
    for (const QString &line : readLog(logPath)) {
        const QRegularExpressionMatch match = pidPattern.match(line);
        if (match.hasMatch())
            return match.captured(1).toLongLong();
    }
    return 0;
}

QProcessEnvironment managementEnvironment(const QString &logPath)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.remove(QStringLiteral("KORBSERVICE_RUN"));
    if (!logPath.isEmpty())
        environment.insert(QStringLiteral("KORB_TEST_SERVICE_LOG"), logPath);
    return environment;
}

SvcRun runProgram(const QStringList &arguments, const QProcessEnvironment &environment)
{
    return svcRun(testServiceProgram(), arguments, environment, 20000);
}

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

DetachedGuard::~DetachedGuard()
{
    const pid_t pid = pid_t(startedPid(log));
    if (pid > 0 && ::kill(pid, SIGKILL) == 0) {
        const QDeadlineTimer deadline(3000);
        while (::kill(pid, 0) == 0 && !deadline.hasExpired())
            QThread::msleep(10);
    }
    QFile::remove(socket);
}

} // namespace SvcTest

SvcServiceProcess::SvcServiceProcess(const QString &stem, int flags)
    : m_name(SvcTest::uniqueName(stem)), m_flags(flags)
{
}

SvcServiceProcess::~SvcServiceProcess()
{
    if (m_process.state() != QProcess::NotRunning) {
        m_process.kill();
        m_process.waitForFinished(3000);
    }
    QFile::remove(socketPath());
}

bool SvcServiceProcess::start()
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("KORBSERVICE_RUN"), QStringLiteral("1"));
    environment.insert(QStringLiteral("KORB_TEST_SERVICE_LOG"), logPath());
    environment.insert(QStringLiteral("KORB_TEST_SERVICE_FLAGS"), QString::number(m_flags));
    m_process.setProcessEnvironment(environment);
    m_process.start(SvcTest::testServiceProgram(), {QStringLiteral("-n"), m_name});
    if (!m_process.waitForStarted(5000))
        return false;
    const QDeadlineTimer deadline(10000);
    while (!deadline.hasExpired() && m_process.state() != QProcess::NotRunning) {
        if (QFileInfo::exists(socketPath()) && SvcTest::startedPid(logPath()) > 0)
            return true;
        QThread::msleep(10);
    }
    return false;
}
