// A small service built on the service framework, for the framework's tests.
// It records every operation the framework calls into the file named by
// KORB_TEST_SERVICE_LOG (one line each), takes its service flags from
// KORB_TEST_SERVICE_FLAGS (default 1) and, with KORB_TEST_SERVICE_EXIT set,
// quits right after start with that number as its exit code.
#include "service/korb_service_app.h"

#include <QCoreApplication>
#include <QFile>
#include <QTimer>

#include <unistd.h>

namespace {

void record(const QString &line)
{
    const QString path = qEnvironmentVariable("KORB_TEST_SERVICE_LOG");
    if (path.isEmpty())
        return;
    QFile file(path);
    if (file.open(QIODevice::WriteOnly | QIODevice::Append))
        file.write(line.toUtf8() + '\n');
}

class KorbTestService : public KorbServiceApp<QCoreApplication>
{
public:
    KorbTestService(int argc, char **argv, const QString &name) : KorbServiceApp(argc, argv, name)
    {
        setServiceDescription(QStringLiteral("%1 test service").arg(serviceName()));
        bool ok = false;
        const int flags = qEnvironmentVariableIntValue("KORB_TEST_SERVICE_FLAGS", &ok);
        setServiceFlags(ok ? flags : CanBeSuspended);
        setStartupType(0);
    }

protected:
    void start() override
    {
        record(QStringLiteral("start pid=%1 run=%2 args=%3")
                   .arg(::getpid())
                   .arg(qEnvironmentVariable("KORBSERVICE_RUN"))
                   .arg(QCoreApplication::arguments().mid(1).join(QLatin1Char('|'))));
        bool ok = false;
        const int code = qEnvironmentVariableIntValue("KORB_TEST_SERVICE_EXIT", &ok);
        if (ok)
            QTimer::singleShot(0, application(), [code] { QCoreApplication::exit(code); });
    }
    void stop() override
    {
        record(QStringLiteral("stop"));
        QCoreApplication::exit(0);
    }
    void pause() override { record(QStringLiteral("pause")); }
    void resume() override { record(QStringLiteral("resume")); }
    void processCommand(int code) override { record(QStringLiteral("command %1").arg(code)); }
};

// The instance name follows the first argument that contains "-n" in any
// letter case, as the daemon takes it.
QString instanceName(int argc, char **argv)
{
    for (int i = 1; i < argc; ++i) {
        if (QString::fromLocal8Bit(argv[i]).contains(QLatin1String("-n"), Qt::CaseInsensitive)) {
            const QString name = i + 1 < argc ? QString::fromLocal8Bit(argv[i + 1]) : QString();
            return name.isEmpty() ? QStringLiteral("Korb.TestService") : name;
        }
    }
    return QStringLiteral("Korb.TestService");
}

} // namespace

int main(int argc, char **argv)
{
    KorbTestService service(argc, argv, instanceName(argc, argv));
    const int result = service.exec();
    record(QStringLiteral("exit %1").arg(result));
    return result;
}
