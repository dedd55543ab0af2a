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

QString loginName()
{
    const passwd *entry = ::getpwuid(::getuid());
    return entry ? QString::fromLocal8Bit(entry->pw_name) : QString::number(::getuid());
}

QString socketPathFor(const QString &encodedName)
{
    return QStringLiteral("/var/tmp/%1.%2").arg(encodedName, loginName());
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

SvcRun runProgram(const QStringList &arguments, const QProcessEnvironment &environment)
{
    QProcess process;
    process.setProcessEnvironment(environment);
    process.start(testServiceProgram(), arguments);
    SvcRun run;
    if (!process.waitForStarted(5000))
        return run;
    run.finished = process.waitForFinished(20000) && process.exitStatus() == QProcess::NormalExit;
    if (!run.finished) {
        process.kill();
        process.waitForFinished(1000);
    }
    run.exitCode = qint8(process.exitCode());
    run.out = process.readAllStandardOutput();
    run.err = process.readAllStandardError();
    return run;
}

void killPid(qint64 pid)
{
    if (pid <= 0 || ::kill(pid_t(pid), 0) != 0)
        return;
    ::kill(pid_t(pid), SIGKILL);
    const QDeadlineTimer deadline(3000);
    while (::kill(pid_t(pid), 0) == 0 && !deadline.hasExpired())
        QThread::msleep(10);
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

QString SvcServiceProcess::socketPath() const
{
    return SvcTest::socketPathFor(m_name);
}

QString SvcServiceProcess::logPath() const
{
    return m_dir.path() + QStringLiteral("/service.log");
}

QStringList SvcServiceProcess::log() const
{
    return SvcTest::readLog(logPath());
}

bool SvcServiceProcess::start(const QStringList &extraArguments)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("KORBSERVICE_RUN"), QStringLiteral("1"));
    environment.insert(QStringLiteral("KORB_TEST_SERVICE_LOG"), logPath());
    environment.insert(QStringLiteral("KORB_TEST_SERVICE_FLAGS"), QString::number(m_flags));
    m_process.setProcessEnvironment(environment);
    m_process.start(SvcTest::testServiceProgram(),
                    QStringList{QStringLiteral("-n"), m_name} + extraArguments);
    if (!m_process.waitForStarted(5000))
        return false;
    const QDeadlineTimer deadline(10000);
    while (!deadline.hasExpired()) {
        if (QFileInfo(socketPath()).exists() && SvcTest::startedPid(logPath()) > 0)
            return true;
        if (m_process.state() == QProcess::NotRunning)
            return false;
        QThread::msleep(10);
    }
    return false;
}
