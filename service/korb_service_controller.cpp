#include "service/korb_service_controller.h"

#include "service/korb_child_process.h"
#include "service/korb_service_systemd.h"
#include "service/korb_unix_socket.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSettings>

#include <algorithm>
#include <cstdio>
#include <pwd.h>
#include <unistd.h>

namespace {

const char *const RegistryFile = "/etc/KorbService.conf";
const char *const RegistryGroup = "services";
const char *const InitDir = "/etc/init.d";

// The unit file systemd runs an instance from. %0 description, %1 name,
// %2 pid file, %3 program, %4 remaining arguments, %5 installation
// directory, %6 user, %7 group. The commented lines are the hardening the
// operator may switch on by hand.
const char UnitTemplate[] = R"([Unit]
Description=%0
After=network.target

[Service]
Type=simple
# ApplicationPIDFile=%2
User=%6
Group=%7

# Capabilities разрешить прослушивать порты < 1024, устанавливать время и пинговать
CapabilityBoundingSet=CAP_NET_BIND_SERVICE CAP_SYS_TIME CAP_NET_RAW CAP_NET_ADMIN
AmbientCapabilities=CAP_NET_BIND_SERVICE CAP_SYS_TIME CAP_NET_RAW CAP_NET_ADMIN

# Порты которые можно открыть
# SocketBindAllow=80,443
# SocketBindDeny=any

# Сетевые настройки
RestrictAddressFamilies=AF_UNIX AF_NETLINK AF_INET AF_INET6

# Безопасность - ограничение прав
# NoNewPrivileges=yes
# ProtectSystem=strict
# ProtectHome=yes
# ProtectKernelTunables=yes
# ProtectKernelModules=yes
# ProtectControlGroups=yes
# ReadWritePaths=%5/logs

# Процессы и память
# MemoryDenyWriteExecute=yes
# RestrictRealtime=yes
# RestrictSUIDSGID=yes

# Лимиты
# LimitNOFILE=65536
# LimitNPROC=512

WorkingDirectory=%5
Environment=KORBSERVICE_RUN=1
ExecStartPre=+/bin/rm -f %2
ExecStart=%3 -n %1%4
TimeoutStartSec=5
TimeoutStopSec=30
#ExecStop=%3 -t -n %1
KillSignal=SIGTERM
KillMode=control-group
OOMScoreAdjust=-900
# Restart=always
Restart=on-failure
RestartSec=5s
StandardError=syslog

[Install]
WantedBy=multi-user.target
)";

// The SysV entry point: forwards its verb to systemctl for the unit of the
// same name.
const char InitScriptTemplate[] = R"(#!/bin/sh

### BEGIN INIT INFO
# Provides:          %1
# Required-Start:    $all
# Required-Stop:
# Default-Start:     2 3 4 5
# Default-Stop:
# Short-Description: Korb Service "%1"
### END INIT INFO

if [ -z $1 ]; then
 echo "Usage: $0 {start|stop|reload|restart|try-restart|reload-or-restart}"
 exit
fi

systemctl $1 `basename $0`
)";

QString tr(const char *text)
{
    return QCoreApplication::translate("KorbServiceController", text);
}

void printLine(const QString &text)
{
    std::printf("%s\n", text.toLocal8Bit().constData());
}

QString unitPath(const QString &name)
{
    return QString::fromLatin1(KorbSystemd::LibUnitDir) + QLatin1Char('/') + KorbSystemd::unitName(name);
}

QString initScriptPath(const QString &name)
{
    return QString::fromLatin1(InitDir) + QLatin1Char('/') + name;
}

// The registry file, entered at its group of services: one subgroup per
// installed instance.
class Registry : public QSettings
{
public:
    Registry() : QSettings(QString::fromLatin1(RegistryFile), QSettings::IniFormat)
    {
        beginGroup(QLatin1String(RegistryGroup));
    }
    QString text(const QString &name, const char *key) const
    {
        return value(name + QLatin1Char('/') + QLatin1String(key)).toString();
    }
    // Writes everything out; false (with the operator's message for `what`)
    // when the file cannot take it.
    bool commit(const char *what, const QString &name)
    {
        sync();
        if (status() == QSettings::NoError)
            return true;
        std::fprintf(stderr, "Cannot %s \"%s\". Cannot write to: %s. Check permissions.\n", what,
                     name.toLocal8Bit().constData(), fileName().toLocal8Bit().constData());
        return false;
    }
};

bool samePath(const QString &a, const QString &b)
{
    const QFileInfo left(a), right(b);
    const QString canonicalLeft = left.canonicalFilePath();
    const QString canonicalRight = right.canonicalFilePath();
    if (!canonicalLeft.isEmpty() && !canonicalRight.isEmpty())
        return canonicalLeft == canonicalRight;
    return left.absoluteFilePath() == right.absoluteFilePath();
}

} // namespace

KorbServiceController::KorbServiceController(const QString &name) : m_name(name) {}

KorbServiceController::~KorbServiceController() = default;

void KorbServiceController::setDescription(const QString &description)
{
    m_description = description;
}

void KorbServiceController::setAutomaticStartup(bool automatic)
{
    m_automaticStartup = automatic;
}

void KorbServiceController::setProcessArguments(const QStringList &arguments)
{
    m_processArguments = arguments;
}

bool KorbServiceController::isInstalled() const
{
    return Registry().childGroups().contains(m_name);
}

QString KorbServiceController::serviceFilePath() const
{
    return Registry().text(m_name, "path");
}

QString KorbServiceController::serviceArguments() const
{
    return Registry().text(m_name, "args");
}

QString KorbServiceController::serviceDescription() const
{
    return Registry().text(m_name, "description");
}

int KorbServiceController::startupType() const
{
    return Registry().text(m_name, "startupType").toInt();
}

bool KorbServiceController::isRunning() const
{
    if (KorbSystemd::isSystemd() && KorbSystemd::unitFileExists(m_name))
        return KorbSystemd::isActive(m_name);
    KorbUnixSocket socket;
    return socket.connectTo(socketPath(m_name));
}

QString KorbServiceController::programFilePath()
{
    const QString self = QFileInfo(QStringLiteral("/proc/self/exe")).symLinkTarget();
    if (!self.isEmpty())
        return self;
    const QStringList arguments = QCoreApplication::arguments();
    return arguments.isEmpty() ? QString() : QFileInfo(arguments.first()).absoluteFilePath();
}

QString KorbServiceController::installDirectory(const QString &programPath)
{
    QString path = programPath;
    path.replace(QLatin1Char('\\'), QLatin1Char('/'));
    QStringList parts = path.split(QLatin1Char('/'), Qt::KeepEmptyParts);
    for (int i = 0; i < 2 && !parts.isEmpty(); ++i)
        parts.removeLast();
    return parts.join(QLatin1Char('/'));
}

QString KorbServiceController::encodeName(const QString &name, bool allowUpper)
{
    static const QString lower = QStringLiteral("abcdefghijklmnopqrstuvwxyz1234567890");
    static const QString upper = QStringLiteral("ABCDEFGHIJKLMNOPQRSTUVWXYZ");
    QString result;
    for (const QChar c : name.toLower()) {
        if (lower.contains(c) || (allowUpper && upper.contains(c)))
            result.append(c);
    }
    return result;
}

QString KorbServiceController::loginName()
{
    const passwd *entry = ::getpwuid(::getuid());
    if (entry && entry->pw_name)
        return QString::fromLocal8Bit(entry->pw_name);
    // No user database entry: the number still keeps users apart.
    return QString::number(::getuid());
}

QString KorbServiceController::socketPath(const QString &name)
{
    return QStringLiteral("/var/tmp/") + encodeName(name, false) + QLatin1Char('.') + loginName();
}

QString KorbServiceController::fillPlaceholders(const QString &text, const QStringList &values)
{
    QString result;
    result.reserve(text.size() * 2);
    for (int i = 0; i < text.size(); ++i) {
        const QChar c = text.at(i);
        if (c == QLatin1Char('%') && i + 1 < text.size()) {
            const int index = text.at(i + 1).digitValue();
            if (index >= 0 && index <= 7 && index < values.size()) {
                result.append(values.at(index));
                ++i;
                continue;
            }
        }
        result.append(c);
    }
    return result;
}

QString KorbServiceController::remainingArguments(const QStringList &processArguments, const QString &name)
{
    QStringList rest = processArguments.mid(1);
    rest.erase(std::remove_if(rest.begin(), rest.end(),
                              [&](const QString &a) {
                                  return a == QLatin1String("-i") || a == QLatin1String("-n") ||
                                         a == QLatin1String("-e") || a == QLatin1String("-a") || a == name;
                              }),
               rest.end());
    return rest.isEmpty() ? QString() : QLatin1Char(' ') + rest.join(QLatin1Char(' '));
}

QString KorbServiceController::pidFilePath(const QString &name)
{
    return QDir::tempPath() + QStringLiteral("/%1-%2.pid").arg(name, QStringLiteral("Korb"));
}

QString KorbServiceController::fileUser(const QString &path)
{
    const QString owner = QFileInfo(path).owner();
    return owner.isEmpty() ? QStringLiteral("korb") : owner;
}

QString KorbServiceController::fileGroup(const QString &path)
{
    const QString group = QFileInfo(path).group();
    return group.isEmpty() ? fileUser(path) : group;
}

QString KorbServiceController::unitFileText(const QString &name, const QString &description,
                                            const QStringList &processArguments, const QString &programPath)
{
    const QStringList values = {description,
                                name,
                                pidFilePath(name),
                                programPath,
                                remainingArguments(processArguments, name),
                                installDirectory(programPath),
                                fileUser(programPath),
                                fileGroup(programPath)};
    return fillPlaceholders(QString::fromUtf8(UnitTemplate), values);
}

QString KorbServiceController::initScriptText(const QString &name)
{
    return fillPlaceholders(QString::fromUtf8(InitScriptTemplate), {QString(), name});
}

void KorbServiceController::runTool(const QString &program, const QStringList &arguments)
{
    KorbChildProcess::run(program, arguments, ToolStartWaitMs, ToolFinishWaitMs, KorbChildProcess::LetRun);
}

void KorbServiceController::labelForSelinux(const QString &programPath) const
{
    if (!QFileInfo(QStringLiteral("/sys/fs/selinux")).isDir())
        return;
    const QByteArray program = programPath.toLocal8Bit();
    QString chcon;
    for (const QString &candidate : {QStringLiteral("/usr/bin/chcon"), QStringLiteral("/bin/chcon")}) {
        const QFileInfo info(candidate);
        if (info.isFile() && info.isExecutable()) {
            chcon = candidate;
            break;
        }
    }
    if (chcon.isEmpty()) {
        std::fprintf(stderr, "SELinux: chcon not found; cannot prepare '%s' for systemd\n",
                     program.constData());
        return;
    }
    const KorbChildProcess::Result tool =
        KorbChildProcess::run(chcon, {QStringLiteral("-t"), QStringLiteral("bin_t"), programPath},
                              ChconStartWaitMs, ChconFinishWaitMs);
    if (!tool.succeeded()) {
        const QByteArray err = tool.err.trimmed();
        std::fprintf(stderr, "SELinux: cannot set bin_t for '%s'%s%s\n", program.constData(),
                     err.isEmpty() ? "" : ": ", err.constData());
    }
}

bool KorbServiceController::install(const QString &account, const QString &password, const QString &arguments)
{
    // A unit runs under the owner of the program file; an account given on
    // the command line has no place in it.
    Q_UNUSED(account)
    Q_UNUSED(password)
    const QString programPath = programFilePath();

    if (KorbSystemd::isSystemd()) {
        QFile unit(unitPath(m_name));
        if (!unit.open(QIODevice::WriteOnly | QIODevice::Truncate))
            return false;
        unit.write(unitFileText(m_name, m_description, m_processArguments, programPath).toUtf8());
        unit.flush();
        unit.close();

        labelForSelinux(programPath);

        printLine(tr("Установка службы %1 для systemd").arg(m_name));
        std::fflush(stdout);
        KorbSystemd::runSystemctl({QStringLiteral("daemon-reload")});

        const QString script = initScriptPath(m_name);
        QFile init(script);
        if (init.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
            init.write(initScriptText(m_name).toUtf8());
            init.close();
        } else {
            std::fprintf(stderr, "Cannot write %s\n", script.toLocal8Bit().constData());
        }
        runTool(QStringLiteral("chmod"), {QStringLiteral("755"), script});
        runTool(QStringLiteral("ln"), {QStringLiteral("-sf"), QStringLiteral("../..") + unitPath(m_name),
                                       script + QLatin1String(".service")});

        const QByteArray unitName = KorbSystemd::unitName(m_name).toLocal8Bit();
        printLine(tr("Не забудьте включить службу %1 и запустить её").arg(m_name));
        std::printf("%s:\n", tr("Пример").toLocal8Bit().constData());
        std::printf("systemctl enable  %s\n", unitName.constData());
        std::printf("systemctl start   %s\n", unitName.constData());
        if (QFileInfo::exists(script)) {
            std::printf("  %s\n", tr("или").toLocal8Bit().constData());
            std::printf("%s start\n", script.toLocal8Bit().constData());
        }
        std::fflush(stdout);
    }

    return writeRegistry(arguments);
}

bool KorbServiceController::writeRegistry(const QString &arguments)
{
    Registry registry;
    registry.beginGroup(m_name);
    registry.setValue(QStringLiteral("path"), programFilePath());
    registry.setValue(QStringLiteral("description"), m_description);
    registry.setValue(QStringLiteral("automaticStartup"), m_automaticStartup);
    registry.setValue(QStringLiteral("args"), arguments);
    registry.endGroup();
    return registry.commit("install", m_name);
}

bool KorbServiceController::uninstall()
{
    printLine(tr("Удаление службы %1 из systemd").arg(m_name));
    std::fflush(stdout);
    const QString unit = KorbSystemd::unitName(m_name);
    KorbSystemd::runSystemctl({QStringLiteral("stop"), unit});
    KorbSystemd::runSystemctl({QStringLiteral("disable"), unit});

    const QString script = initScriptPath(m_name);
    QFile::remove(unitPath(m_name));
    QFile::remove(script);
    QFile::remove(script + QLatin1String(".service"));
    for (const char *dir : {KorbSystemd::EtcUnitDir, KorbSystemd::LibUnitDir}) {
        const QString entry = QStringLiteral("%1/%2").arg(QString::fromLatin1(dir), m_name);
        QFile::remove(entry);
        QFile::remove(entry + QLatin1String(".service"));
    }
    KorbSystemd::runSystemctl({QStringLiteral("daemon-reload")});
    return removeFromRegistry();
}

bool KorbServiceController::removeFromRegistry()
{
    Registry registry;
    registry.remove(m_name);
    return registry.commit("uninstall", m_name);
}

bool KorbServiceController::start()
{
    if (!isInstalled() || isRunning())
        return false;
    if (KorbSystemd::isSystemd() && KorbSystemd::unitFileExists(m_name))
        return KorbSystemd::runSystemctl({QStringLiteral("start"), KorbSystemd::unitName(m_name)});

    // No unit to start: run the registered program as the unit would, as the
    // service process of this instance.
    return KorbChildProcess::startService(serviceFilePath(),
                                          QStringList{QStringLiteral("-n"), m_name} +
                                              serviceArguments().split(QLatin1Char(' '), Qt::KeepEmptyParts));
}

bool KorbServiceController::stop()
{
    if (KorbSystemd::isActive(m_name))
        return KorbSystemd::runSystemctl({QStringLiteral("stop"), KorbSystemd::unitName(m_name)});
    return sendCommand(QStringLiteral("terminate"));
}

bool KorbServiceController::pause()
{
    return sendCommand(QStringLiteral("pause"));
}

bool KorbServiceController::resume()
{
    return sendCommand(QStringLiteral("resume"));
}

bool KorbServiceController::sendCommand(int code)
{
    return sendCommand(QStringLiteral("num:%1").arg(code));
}

bool KorbServiceController::sendCommand(const QString &command)
{
    KorbUnixSocket socket;
    if (!socket.connectTo(socketPath(m_name)))
        return false;
    socket.write(command.toLatin1() + "\r\n");
    socket.flush();
    if (!socket.waitForReadyRead(CommandAnswerWaitMs))
        return false;
    return socket.readAll() == "true";
}

KorbServiceStatus KorbServiceController::status(const QString &name, const QString &path,
                                                const QString &arguments)
{
    KorbServiceStatus row;
    row.name = name;
    row.state = 0;
    row.statusText = QStringLiteral("UNKNOWN          ");
    row.command = arguments.isEmpty() ? path : path + QLatin1Char(' ') + arguments;
    if (!KorbSystemd::isSystemd())
        return row;

    const QString unit = KorbSystemd::unitName(name);
    auto ask = [&unit](const char *question) {
        QString answer;
        if (!KorbSystemd::systemctlOutput({QString::fromLatin1(question), unit}, &answer))
            return QStringLiteral("failed");
        return answer;
    };
    const QString enabled = ask("is-enabled");
    const QString active = ask("is-active");
    const QString failed = ask("is-failed");
    if (failed.startsWith(QLatin1String("failed")))
        row.state = 4;
    else if (active.startsWith(QLatin1String("inactive")) || enabled.startsWith(QLatin1String("masked")))
        row.state = 0;
    else
        row.state = 1;
    row.statusText = enabled.leftJustified(8) + QLatin1Char('|') + active.leftJustified(8);
    return row;
}

QList<KorbServiceStatus> KorbServiceController::query(const QString &programPath, bool all)
{
    const Registry registry;
    QStringList names = registry.childGroups();
    std::sort(names.begin(), names.end());
    QList<KorbServiceStatus> rows;
    for (const QString &name : names) {
        const QString path = registry.text(name, "path");
        if (!all && !samePath(path, programPath))
            continue;
        rows.append(status(name, path, registry.text(name, "args")));
    }
    return rows;
}
