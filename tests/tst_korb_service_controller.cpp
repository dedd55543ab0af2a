// The texts the installer writes (unit file, init script) with the values it
// fills in, built in-process, and the systemd activity rule.
#include "service/korb_service_controller.h"
#include "service/korb_service_systemd.h"

#include <QDir>
#include <QFile>
#include <QtTest>

#include <unistd.h>

namespace {

// The unit file as systemd must receive it; %0 description, %1 name, %2 pid
// file, %3 program, %4 remaining arguments, %5 directory, %6 user, %7 group.
const char *const UnitTemplate = R"([Unit]
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

QString touch(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) ? path : QString();
}

} // namespace

class tst_KorbServiceController : public QObject
{
    Q_OBJECT

private slots:
    void unitFile_data()
    {
        QTest::addColumn<QStringList>("processArguments");
        QTest::addColumn<QString>("rest");
        QTest::newRow("help example")
            << QStringList{"prog", "-i", "-n", "KORB.SRV", "-a", "-p 9080 -ps 9081"} << " -p 9080 -ps 9081";
        QTest::newRow("no arguments end with the name") << QStringList{"prog", "-i", "-n", "KORB.SRV"} << "";
        QTest::newRow("account and password stay")
            << QStringList{"prog", "-i", "acc", "pw", "-n", "KORB.SRV"} << " acc pw";
        QTest::newRow("-e and the name dropped anywhere, case matters")
            << QStringList{"prog", "-n", "KORB.SRV", "-e", "-I", "-lt", "KORB.SRV", "-N"} << " -I -lt -N";
        QTest::newRow("only the first program path dropped") << QStringList{"prog", "prog"} << " prog";
    }

    void unitFile()
    {
        QFETCH(QStringList, processArguments);
        QFETCH(QString, rest);
        QTemporaryDir dir;
        QVERIFY(QDir(dir.path()).mkpath(QStringLiteral("opt/bin")));
        const QString program = touch(dir.path() + QStringLiteral("/opt/bin/prog"));
        QVERIFY(!program.isEmpty());
        const QFileInfo info(program);
        // Placeholders are filled in one pass: the description's own "%3" stays.
        const QString description = QStringLiteral("KORB.SRV service '%3' 100%");
        QCOMPARE(KorbServiceController::unitFileText(QStringLiteral("KORB.SRV"), description,
                                                     processArguments, program)
                     .toUtf8(),
                 QString::fromUtf8(UnitTemplate)
                     .arg(description, QStringLiteral("KORB.SRV"),
                          QDir::tempPath() + QStringLiteral("/KORB.SRV-Korb.pid"), program, rest,
                          dir.path() + QStringLiteral("/opt"), info.owner(), info.group())
                     .toUtf8());
    }

    void unitFileOwnerUnknown()
    {
        if (::geteuid() != 0)
            QSKIP("giving a file to an unknown owner needs root");
        QTemporaryDir dir;
        const QString program = touch(dir.path() + QStringLiteral("/prog"));
        // Numbers no user database here knows.
        QCOMPARE(::chown(QFile::encodeName(program).constData(), 54329, 54329), 0);
        QVERIFY(QFileInfo(program).owner().isEmpty());
        const QString text = KorbServiceController::unitFileText("n", "d", {"p"}, program);
        QVERIFY2(text.contains(QStringLiteral("\nUser=korb\nGroup=korb\n")), qPrintable(text));
        // A known owner with an unknown group: the group takes the user's value.
        QCOMPARE(::chown(QFile::encodeName(program).constData(), 0, 54329), 0);
        QCOMPARE(KorbServiceController::fileGroup(program), QFileInfo(program).owner());
    }

    void initScript()
    {
        const QByteArray expected =
            "#!/bin/sh\n"
            "\n"
            "### BEGIN INIT INFO\n"
            "# Provides:          Korb.RDV2\n"
            "# Required-Start:    $all\n"
            "# Required-Stop:\n"
            "# Default-Start:     2 3 4 5\n"
            "# Default-Stop:\n"
            "# Short-Description: Korb Service \"Korb.RDV2\"\n"
            "### END INIT INFO\n"
            "\n"
            "if [ -z $1 ]; then\n"
            " echo \"Usage: $0 {start|stop|reload|restart|try-restart|reload-or-restart}\"\n"
            " exit\n"
            "fi\n"
            "\n"
            "systemctl $1 `basename $0`\n";
        QCOMPARE(KorbServiceController::initScriptText(QStringLiteral("Korb.RDV2")).toUtf8(), expected);
    }

    void activeAnswer_data()
    {
        QTest::addColumn<QString>("answer");
        QTest::addColumn<bool>("running");
        QTest::newRow("ACTIVE, case ignored") << "ACTIVE" << true;
        QTest::newRow("activating") << "activating" << true;
        QTest::newRow("reloading") << "reloading" << true;
        QTest::newRow("with line end") << "active\n" << true;
        QTest::newRow("deactivating") << "deactivating" << false;
    }

    void activeAnswer()
    {
        QFETCH(QString, answer);
        QFETCH(bool, running);
        QCOMPARE(KorbSystemd::activeAnswerMeansRunning(answer), running);
    }
};

QTEST_GUILESS_MAIN(tst_KorbServiceController)
#include "tst_korb_service_controller.moc"
