#include "service/korb_service_base.h"

#include "korb_version.h"
#include "service/korb_child_process.h"
#include "service/korb_service_controller.h"
#include "service/korb_service_starter.h"
#include "service/korb_service_sys_private.h"

#include <QCoreApplication>
#include <QDebug>
#include <QMetaObject>
#include <QProcess>

#include <cstdio>
#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

namespace {

// The help text; every "%s" stands for the program as it was called.
const char HelpText[] =
    "\n"
    "%s -[a|e|h|i|n|s|u|v|q]\n"
    "\t-i(nstall) [account] [password]      : Install the service, optionally using given account and "
    "password\n"
    "\t-i(nstall) [-n(ame) serviceName]     : Install the service, optionally using the required service "
    "name\n"
    "\t-i(nstall) [-a(rgs) \"all args\"]      : Install the service, optionally using the required "
    "arguments\n"
    "\t-u(ninstall)                         : Uninstall the service.\n"
    "\t-u(ninstall) [-n(ame) serviceName]   : Uninstall the service, optionally using the required service "
    "name.\n"
    "\t-u(ninstall) [-all]                  : Uninstall all installed services.\n"
    "\t-e(xec)                              : Run as a regular application. Useful for debugging.\n"
    "\t-t(erminate)                         : Stop the service.\n"
    "\t-t(erminate) [-n(ame) serviceName]   : Stop the service, optionally using the required service name.\n"
    "\t-t(erminate) [-all]                  : Stop all installed services (Windows only).\n"
    "\t-c(ommand) num                       : Send command code num to the service.\n"
    "\t-c(ommand) num [-n(ame) serviceName] : Send command code num to the service using the required "
    "service name.\n"
    "\t-d(irectory installation)            : installation directory.\n"
    "\t-v(ersion)                           : Print version.\n"
    "\t-p(ause)  [-n(ame) serviceName]      : Pause.\n"
    "\t-r(esume) [-n(ame) serviceName]      : Resume.\n"
    "\t-s(tart) [-n(ame) serviceName]       : Start service, optionally using the required service name.\n"
    "\t-Q(uery)                             : Get the status of all installed services from this instance.\n"
    "\t-q(uery)                             : Get the status of all installed services from this instance "
    "without a "
    "title.\n"
    "\t-Qa(ll)                              : Get state all installed services.\n"
    "\t-qa(ll)                              : Get state all installed services without a title.\n"
    "\tNo arguments [-n(ame) serviceName]   : Start the service, optionally using the required service "
    "name.\n"
    "\t-h(elp)                              : Show this help\n"
    "-----------------------------------------------------------\n"
    "-------- directives for the application -------------------\n"
    "-----------------------------------------------------------\n"
    "\t-p                                   : http port\n"
    "\t-ps                                  : https port\n"
    "\t-cfg                                 : config file (default ../etc/korb.xml)\n"
    "\t-ld                                  : log directory (default ../logs)\n"
    "\t-lt                                  : log level [0 - err only, 1 - warn, 2 - info, 3 - debug]\n"
    "\t-tc                                  : terminal codec [UTF-8, cp1251, cp688]\n"
    "\t-cmd                                 : make a request to the running application\n"
    "-----------------------------------------------------------\n"
    "example:\n"
    "# install service\n"
    " %s  -i  -n KORB.SRV   -a \"-p 9080 -ps 9081\"\n"
    "# start service\n"
    " %s      -n KORB.SRV\n"
    "# stop service\n"
    " %s  -t  -n KORB.SRV\n"
    "# uninstall service\n"
    " %s  -u  -n KORB.SRV\n"
    "# start all services (Windows only)\n"
    " %s  -n -all\n"
    "# stop all services (Windows only)\n"
    " %s  -t  -all\n"
    "# uninstall all services\n"
    " %s  -u  -all\n"
    "\n";

bool runVariableSet()
{
    return qEnvironmentVariableIsSet(KorbChildProcess::RunVariable);
}

// Detaches a standard stream from whatever it was attached to. The
// descriptor is pointed at /dev/null rather than left free, so that the next
// file or socket the service opens cannot take its number.
void detachStream(int fd)
{
    const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    if (null < 0) {
        ::close(fd);
        return;
    }
    if (null != fd) {
        ::dup2(null, fd);
        ::close(null);
    }
}

bool isCommand(const QString &argument, const char *option)
{
    return argument.startsWith(QLatin1String(option), Qt::CaseInsensitive);
}

} // namespace

KorbServiceBase::KorbServiceBase(int argc, char **argv, const QString &name)
{
    for (int i = 0; i < argc && argv && argv[i]; ++i)
        m_args.append(QString::fromLocal8Bit(argv[i]));

    m_name = name;
    if (m_name.length() > MaxNameLength) {
        qWarning("KorbService: 'name' is longer than 255 characters.");
        m_name.truncate(MaxNameLength);
    }
    if (m_name.contains(QLatin1Char('\\'))) {
        qWarning("KorbService: 'name' contains backslashes '\\'.");
        m_name.replace(QLatin1Char('\\'), QChar(0));
    }
    m_controller = new KorbServiceController(m_name);
}

KorbServiceBase::~KorbServiceBase()
{
    delete m_sys;
    delete m_controller;
}

QString KorbServiceBase::serviceName() const
{
    return m_name;
}

void KorbServiceBase::setServiceDescription(const QString &description)
{
    m_description = description;
}

int KorbServiceBase::serviceFlags() const
{
    return m_flags;
}

void KorbServiceBase::setServiceFlags(int flags)
{
    m_flags = flags;
}

void KorbServiceBase::setStartupType(int type)
{
    m_startupType = type;
}

void KorbServiceBase::stop()
{
    QCoreApplication::quit();
}

void KorbServiceBase::pause() {}

void KorbServiceBase::resume() {}

void KorbServiceBase::processCommand(int code)
{
    Q_UNUSED(code)
}

void KorbServiceBase::logMessage(const QString &message, int type)
{
    int priority = LOG_INFO;
    if (type == 1)
        priority = LOG_ERR;
    else if (type == 2)
        priority = LOG_WARNING;
    ::syslog(LOG_DAEMON | priority, "%s", message.toUtf8().constData());
}

void KorbServiceBase::printHelp() const
{
    const QByteArray text =
        QString::fromUtf8(HelpText).replace(QLatin1String("%s"), m_args.value(0)).toLocal8Bit();
    std::printf("%s", text.constData());
    std::fflush(stdout);
}

void KorbServiceBase::printVersion() const
{
    const QString line = QStringLiteral("%1 rev." KORB_REVISION " - Powered by " KORB_QT_BUILD_TAG);
    std::puts(line.arg(m_args.value(0)).toLocal8Bit().constData());
    std::fflush(stdout);
}

int KorbServiceBase::query(const QString &argument)
{
    const bool all = argument.startsWith(QLatin1String("-qa"));
    const QList<KorbServiceStatus> rows =
        KorbServiceController::query(KorbServiceController::programFilePath(), all);
    int width = 11;
    for (const KorbServiceStatus &row : rows)
        width = qMax(width, row.name.length());
    // The title belongs to "-Q", but the search for it starts behind the
    // first character, so it never appears.
    if (argument.indexOf(QLatin1String("-Q"), 1) == 0) {
        std::printf("ServiceName%s\tState\tDescription      \tCommand\n",
                    QString(width - 11, QLatin1Char(' ')).toLocal8Bit().constData());
    }
    for (const KorbServiceStatus &row : rows) {
        std::printf("%s\t%d\t%s\t'%s'\n", row.name.leftJustified(width).toLocal8Bit().constData(), row.state,
                    row.statusText.toLocal8Bit().constData(), row.command.toLocal8Bit().constData());
    }
    std::fflush(stdout);
    return 0;
}

int KorbServiceBase::startInstance()
{
    const QByteArray name = m_name.toLocal8Bit();
    if (!m_controller->isInstalled()) {
        std::fprintf(stderr, "The service %s is not installed\n", name.constData());
        return -1;
    }
    if (m_controller->isRunning()) {
        std::fprintf(stderr, "The service %s is already Running\n", name.constData());
        return -4;
    }
    if (m_controller->start())
        return 0;
    qErrnoWarning("%s", qPrintable(QStringLiteral("The service %1 could not be started.").arg(m_name)));
    return -1;
}

int KorbServiceBase::defaultStartOrRun()
{
    if (!runVariableSet()) {
        if (m_controller->sendCommand(QStringLiteral("alive"))) {
            qWarning("Service %s is Running!", m_name.toLocal8Bit().constData());
            return -4;
        }
        return KorbChildProcess::startService(KorbServiceController::programFilePath(), m_args.mid(1)) ? 0
                                                                                                       : -4;
    }
    std::fflush(stdout);
    detachStream(STDIN_FILENO);
    detachStream(STDOUT_FILENO);
    const int result = runService(true, m_args);
    if (result == -1)
        qErrnoWarning("The service failed to run.");
    std::fflush(stderr);
    detachStream(STDERR_FILENO);
    return result;
}

int KorbServiceBase::runService(bool asService, const QStringList &arguments)
{
    m_runArgData.clear();
    for (const QString &argument : arguments)
        m_runArgData.append(argument.toLocal8Bit());
    m_runArgv.clear();
    for (QByteArray &data : m_runArgData)
        m_runArgv.append(data.data());
    m_runArgv.append(nullptr);
    m_runArgc = m_runArgData.size();

    createApplication(m_runArgc, m_runArgv.data());
    QCoreApplication *application = QCoreApplication::instance();
    if (!application)
        return -1;

    auto *starter = new KorbServiceStarter(this, application);
    QMetaObject::invokeMethod(starter, "slotStart", Qt::QueuedConnection);

    if (asService) {
        m_sys = new KorbServiceSysPrivate(this, application);
        const QString path = KorbServiceController::socketPath(m_name);
        if (!m_sys->listen(path)) {
            logMessage(QStringLiteral("%1: cannot listen on %2: %3").arg(m_name, path, m_sys->errorText()),
                       1);
        }
    }
    const int result = executeApplication();
    // The socket file goes with the channel, before the application and its
    // children are destroyed.
    delete m_sys;
    m_sys = nullptr;
    return result;
}

int KorbServiceBase::exec()
{
    const int count = m_args.size();
    if (count <= 1)
        return defaultStartOrRun();

    // First pass: help, version and query win wherever they stand.
    for (int i = 1; i < count; ++i) {
        const QString &argument = m_args.at(i);
        if (argument.compare(QLatin1String("-h"), Qt::CaseInsensitive) == 0) {
            printHelp();
            return 0;
        }
        if (argument.compare(QLatin1String("-v"), Qt::CaseInsensitive) == 0) {
            printVersion();
            return 0;
        }
        if (argument.startsWith(QLatin1String("-q"), Qt::CaseInsensitive))
            return query(argument);
    }

    // Second pass: the foreground run and the values of the options.
    QString account;
    QString password;
    QString installArguments;
    bool all = false;
    for (int i = 1; i < count; ++i) {
        const QString &argument = m_args.at(i);
        if (argument.startsWith(QLatin1String("-e"))) {
            QStringList shortened = m_args;
            shortened.removeAt(i);
            const int result = runService(false, shortened);
            if (result == -1)
                qErrnoWarning("The service could not be executed.");
            return result;
        }
        if (argument.startsWith(QLatin1String("-n"))) {
            ++i; // the instance name, taken by the process entry already
        } else if (argument.startsWith(QLatin1String("-all"))) {
            all = true;
        } else if (argument.startsWith(QLatin1String("-a"))) {
            if (i + 1 < count)
                installArguments = m_args.at(++i);
        } else if (argument.startsWith(QLatin1String("-i"))) {
            if (i + 1 < count)
                account = m_args.at(++i);
            if (i + 1 < count)
                password = m_args.at(++i);
            if (account.startsWith(QLatin1Char('-')) || password.startsWith(QLatin1Char('-'))) {
                account.clear();
                password.clear();
            }
        }
    }

    QString command = m_args.at(1);
    if (command.compare(QLatin1String("-n"), Qt::CaseInsensitive) == 0 && count >= 4) {
        for (int i = 3; i < count; ++i) {
            const QString &argument = m_args.at(i);
            bool found = false;
            for (const char *option : {"-i", "-u", "-d", "-t", "-s"}) {
                if (argument.compare(QLatin1String(option), Qt::CaseInsensitive) == 0) {
                    found = true;
                    break;
                }
            }
            if (found) {
                command = argument;
                break;
            }
        }
    }

    if (isCommand(command, "-cfg"))
        return defaultStartOrRun();

    const QByteArray name = m_name.toLocal8Bit();
    if (isCommand(command, "-n")) {
        if (!all) {
            if (runVariableSet())
                return defaultStartOrRun();
            return startInstance();
        }
        // Starting every instance at once belongs to another platform; the
        // instances are only looked up.
        KorbServiceController::query(KorbServiceController::programFilePath(), true);
        return 0;
    }

    if (isCommand(command, "-i")) {
        if (m_controller->isInstalled()) {
            std::fprintf(stderr, "The service %s is already installed\n", name.constData());
            return 0;
        }
        m_controller->setDescription(m_description);
        m_controller->setAutomaticStartup(m_startupType == 0);
        m_controller->setProcessArguments(m_args);
        if (!m_controller->install(account, password, installArguments)) {
            std::fprintf(stderr, "The service %s could not be installed: %s\n", name.constData(),
                         qt_error_string(-1).toLocal8Bit().constData());
            return -1;
        }
        std::printf("The service %s has been installed under:\n %s %s\n", name.constData(),
                    KorbServiceController::programFilePath().toLocal8Bit().constData(),
                    installArguments.toLocal8Bit().constData());
        std::fflush(stdout);
        return 0;
    }
    if (isCommand(command, "-u")) {
        if (!all) {
            if (m_controller->isInstalled()) {
                if (!m_controller->uninstall()) {
                    std::fprintf(stderr, "The service %s could not be uninstalled\n", name.constData());
                    return -1;
                }
                std::printf("The service %s has been uninstalled.\n", name.constData());
                std::fflush(stdout);
            } else {
                std::fprintf(stderr, "The service %s is not installed\n", name.constData());
            }
            return 0;
        }
        const QList<KorbServiceStatus> rows =
            KorbServiceController::query(KorbServiceController::programFilePath(), true);
        for (const KorbServiceStatus &row : rows) {
            std::fflush(stdout);
            QProcess::execute(KorbServiceController::programFilePath(),
                              {QStringLiteral("-u"), QStringLiteral("-n"), row.name});
        }
        return 0;
    }
    if (isCommand(command, "-d")) {
        std::puts(KorbServiceController::installDirectory(KorbServiceController::programFilePath())
                      .toLocal8Bit()
                      .constData());
        std::fflush(stdout);
        return 0;
    }
    if (isCommand(command, "-t")) {
        if (all) {
            // Stopping every instance at once belongs to another platform.
            KorbServiceController::query(KorbServiceController::programFilePath(), true);
            return 0;
        }
        if (!m_controller->isRunning()) {
            std::fprintf(stderr, "The service %s is not Running\n", name.constData());
            return -4;
        }
        if (!m_controller->stop())
            qErrnoWarning("%s",
                          qPrintable(QStringLiteral("The service %1 could not be stopped.").arg(m_name)));
        return 0;
    }
    if (isCommand(command, "-p")) {
        m_controller->pause();
        return 0;
    }
    if (isCommand(command, "-r")) {
        m_controller->resume();
        return 0;
    }
    if (isCommand(command, "-c")) {
        const int code = count >= 3 ? m_args.at(2).toInt() : 0;
        m_controller->sendCommand(code);
        return 0;
    }
    if (isCommand(command, "-s"))
        return startInstance();

    return defaultStartOrRun();
}
