// A small service on the service framework, for the framework's tests: it
// records every operation the framework calls as one line of the file in
// KORB_TEST_SERVICE_LOG and, with KORB_TEST_SERVICE_EXIT set, quits right
// after start with that number as its exit code.
#include "service/korb_service_app.h"

#include <QCoreApplication>
#include <QFile>
#include <QTimer>

#include <unistd.h>

namespace {

void record(const QString &line)
{
    QFile file(qEnvironmentVariable("KORB_TEST_SERVICE_LOG"));
    if (!file.fileName().isEmpty() && file.open(QIODevice::WriteOnly | QIODevice::Append))
        file.write(line.toUtf8() + '\n');
}

class KorbTestService : public KorbServiceApp<QCoreApplication>
{
public:
    KorbTestService(int argc, char **argv, const QString &name) : KorbServiceApp(argc, argv, name)
    {
        setServiceDescription(serviceName() + QStringLiteral(" test service"));
        setServiceFlags(CanBeSuspended);
    }

protected:
    void start() override
    {
        record(QStringLiteral("start pid=%1 run=%2 args=%3")
                   .arg(::getpid())
                   .arg(qEnvironmentVariable("KORBSERVICE_RUN"),
                        QCoreApplication::arguments().mid(1).join('|')));
        bool ok = false;
        const int code = qEnvironmentVariableIntValue("KORB_TEST_SERVICE_EXIT", &ok);
        if (ok)
            QTimer::singleShot(0, application(), [code] { QCoreApplication::exit(code); });
    }
    void stop() override { record(QStringLiteral("stop")), QCoreApplication::exit(0); }
    void pause() override { record(QStringLiteral("pause")); }
    void resume() override { record(QStringLiteral("resume")); }
    void processCommand(int code) override { record(QStringLiteral("command %1").arg(code)); }
};

} // namespace

int main(int argc, char **argv)
{
    // The instance name follows the first argument containing "-n", as the
    // daemon takes it.
    int i = 1;
    while (i + 1 < argc &&
           !QString::fromLocal8Bit(argv[i]).contains(QLatin1String("-n"), Qt::CaseInsensitive))
        ++i;
    KorbTestService service(argc, argv,
                            i + 1 < argc ? QString::fromLocal8Bit(argv[i + 1]) : "Korb.TestService");
    const int result = service.exec();
    record(QStringLiteral("exit %1").arg(result));
    return result;
}
