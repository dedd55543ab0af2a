// Process entry of KorbRdv_streamer: prepares logging, installs the signal
// handler, picks the instance name and hands over to the service framework.
#include "logger/korb_log.h"
#include "logger/korb_logger_light.h"
#include "service/korb_service_app.h"
#include "src/korb_env.h"
#include "src/korb_rdv_server.h"
#include "src/korb_rdv_settings.h"

#include <QCoreApplication>
#include <QDir>
#include <QPointer>
#include <QTextCodec>

#include <csignal>
#include <cstring>
#include <unistd.h>

namespace {

const char *signalDescription(int sig)
{
    switch (sig) {
    case SIGINT:
        return "SIGINT interrupt";
    case SIGILL:
        return "SIGILL illegal instruction";
    case SIGABRT:
        return "SIGABRT 'abnormal termination triggered by abort call'";
    case SIGFPE:
        return "SIGFPE floating point exception";
    case SIGSEGV:
        return "SIGSEGV segment violation";
    case SIGTERM:
        return "SIGTERM 'Software termination signal from kill'";
    default:
        return nullptr;
    }
}

// Time the handler's work may take before the process is ended regardless.
constexpr unsigned ForcedExitSeconds = 2;
volatile std::sig_atomic_t g_exitStatus = 0;

void forced_exit(int)
{
    ::_exit(g_exitStatus);
}

// Logging, the object lookup and halt() run straight from the signal context:
// the process ends right after, and the log line is what operators look for.
void sig_handler(int sig)
{
    const char *description = signalDescription(sig);
    if (!description) {
        KLOG(nullptr, 0, QObject::tr("undefined signal %1 - ignore").arg(sig));
        return;
    }
    // That work allocates and takes locks; should the signal have interrupted
    // code holding one of them (the allocator, Qt internals), it would wait
    // forever. The alarm then ends the process with the same status. Should
    // it instead find the allocator's state broken, it aborts or faults: that
    // second signal ends the process at once with the first one's status.
    if (g_exitStatus != 0)
        ::_exit(g_exitStatus);
    g_exitStatus = sig;
    std::signal(SIGALRM, forced_exit);
    ::alarm(ForcedExitSeconds);
    KLOG(nullptr, -1,
         QObject::tr("handle the signal '%1' - stop programm").arg(QString::fromLatin1(description)));
    if (QCoreApplication *app = QCoreApplication::instance()) {
        if (auto *server = app->findChild<KorbRdvStreamer *>(QStringLiteral("server"))) {
            Korb::lastHandledSignal = sig;
            QMetaObject::invokeMethod(server, "halt", Qt::AutoConnection);
        }
    }
    // _exit, not exit: the signal may have interrupted library code that
    // holds a lock its exit handlers need, and the process would then hang
    // instead of ending. The status is the same; the log file is closed after
    // every line, so nothing written is lost.
    ::_exit(sig);
}

// Instance name: the argument after the first one that contains "-n" in any
// letter case ("-nofile" and "-N" count too).
QString instanceName(int argc, char **argv)
{
    QString name;
    for (int i = 1; i < argc; ++i) {
        if (QString::fromLocal8Bit(argv[i]).contains(QLatin1String("-n"), Qt::CaseInsensitive)) {
            if (i + 1 < argc)
                name = QString::fromLocal8Bit(argv[i + 1]);
            break;
        }
    }
    return name.isEmpty() ? QString::fromLatin1(KorbRdvStreamer::DefaultInstanceName) : name;
}

} // namespace

class KorbService : public KorbServiceApp<QCoreApplication>
{
public:
    KorbService(int argc, char **argv, const QString &name)
        : KorbServiceApp<QCoreApplication>(argc, argv, name),
          fixedName(QString::fromLatin1(KorbRdvStreamer::DefaultInstanceName))
    {
        setServiceDescription(QStringLiteral("%1 service '%2'").arg(name, fixedName));
        setServiceFlags(1);
        setStartupType(0);
    }

protected:
    void start() override
    {
        QCoreApplication *app = application();
        app->setObjectName(fixedName);
        // Relative paths are taken from the application directory, made
        // current here; helper programs and libraries kept beside the
        // application are found first.
        Korb::setAppDir(QCoreApplication::applicationDirPath());
        Korb::changeWorkDir(QString());
        Korb::setAppPath();

        QCoreApplication::addLibraryPath(Korb::getAbsPath(QString::fromLatin1(Korb::PluginDir)));
        QStringList found;
        for (const char *dir :
             {"../lib64", "../lib.x64", "../lib.amd64", "./lib64", "./lib.x64", "./lib.amd64"}) {
            const QDir d(QString::fromLatin1(dir));
            if (d.exists())
                found << d.absolutePath();
        }
        for (const QString &path : qAsConst(found))
            if (!QCoreApplication::libraryPaths().contains(path))
                QCoreApplication::addLibraryPath(path);

        const bool cmd =
            QCoreApplication::arguments().join(QLatin1Char(' ')).indexOf(QLatin1String("-cmd")) > 0;

        server = new KorbRdvStreamer(app, true, QStringList(), serviceName());
        // What qExit() does, by the application: when destroyed() comes, the
        // object is a streamer no more, and none of its slots may run.
        QObject::connect(server, &QObject::destroyed, app, [] { KorbRdvStreamer::exitOnHandledSignal(); });
        QObject::connect(server, &KorbRdvStreamer::finished, app, &QCoreApplication::quit);

        if (server->serviceFlag() > 0)
            logMessage(
                (cmd ? QStringLiteral("%1: send cmd'") : QStringLiteral("%1: started")).arg(server->label()),
                3);
    }

    // Not deleted here: a stop may arrive inside one of the streamer's nested
    // waits (the configuration pause, a connection wait), and the object must
    // outlive that frame. It ends through its own stop sequence, whose
    // finished() quits the application; the application object destroys it
    // once the event loop has returned.
    void stop() override
    {
        if (server)
            server->halt();
        else
            QCoreApplication::exit(0);
    }

    void pause() override
    {
        if (server)
            server->pause();
    }

    void resume() override
    {
        if (server)
            server->createConnect();
    }

    void processCommand(int) override {}

private:
    const QString fixedName;
    QPointer<KorbRdvStreamer> server;
};

int main(int argc, char **argv)
{
    for (int sig : {SIGINT, SIGILL, SIGFPE, SIGSEGV, SIGTERM, SIGABRT})
        std::signal(sig, sig_handler);

    KorbLoggerLight *logger = KorbLoggerLight::instance();
    logger->setCodec(QTextCodec::codecForName("UTF-8"));
    Korb::logThreshold = Korb::DefaultLogThreshold;
    logger->setConsoleLevel(0);
    logger->setLogDir(Korb::getAbsPath(QStringLiteral("../logs")));
    logger->setLoggerName(QStringLiteral("rdv"));

    KorbService service(argc, argv, instanceName(argc, argv));
    return service.exec();
}
