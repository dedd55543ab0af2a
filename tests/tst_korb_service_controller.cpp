// The texts the installer writes (unit file, init script) and the values it
// fills in, built in-process; the systemd answer rules.
#include "service/korb_service_controller.h"
#include "service/korb_service_systemd.h"

#include <QDir>
#include <QFile>
#include <QtTest>

#include <unistd.h>

namespace {

// The unit file as systemd must receive it, with the values filled in.
QByteArray expectedUnit(const QString &description, const QString &name, const QString &pidFile,
                        const QString &program, const QString &rest, const QString &directory,
                        const QString &user, const QString &group)
{
    const QStringList lines = {
        "[Unit]",
        "Description=" + description,
        "After=network.target",
        "",
        "[Service]",
        "Type=simple",
        "# ApplicationPIDFile=" + pidFile,
        "User=" + user,
        "Group=" + group,
        "",
        QString::fromUtf8(
            "# Capabilities разрешить прослушивать порты < 1024, устанавливать время и пинговать"),
        "CapabilityBoundingSet=CAP_NET_BIND_SERVICE CAP_SYS_TIME CAP_NET_RAW CAP_NET_ADMIN",
        "AmbientCapabilities=CAP_NET_BIND_SERVICE CAP_SYS_TIME CAP_NET_RAW CAP_NET_ADMIN",
        "",
        QString::fromUtf8("# Порты которые можно открыть"),
        "# SocketBindAllow=80,443",
        "# SocketBindDeny=any",
        "",
        QString::fromUtf8("# Сетевые настройки"),
        "RestrictAddressFamilies=AF_UNIX AF_NETLINK AF_INET AF_INET6",
        "",
        QString::fromUtf8("# Безопасность - ограничение прав"),
        "# NoNewPrivileges=yes",
        "# ProtectSystem=strict",
        "# ProtectHome=yes",
        "# ProtectKernelTunables=yes",
        "# ProtectKernelModules=yes",
        "# ProtectControlGroups=yes",
        "# ReadWritePaths=" + directory + "/logs",
        "",
        QString::fromUtf8("# Процессы и память"),
        "# MemoryDenyWriteExecute=yes",
        "# RestrictRealtime=yes",
        "# RestrictSUIDSGID=yes",
        "",
        QString::fromUtf8("# Лимиты"),
        "# LimitNOFILE=65536",
        "# LimitNPROC=512",
        "",
        "WorkingDirectory=" + directory,
        "Environment=KORBSERVICE_RUN=1",
        "ExecStartPre=+/bin/rm -f " + pidFile,
        "ExecStart=" + program + " -n " + name + rest,
        "TimeoutStartSec=5",
        "TimeoutStopSec=30",
        "#ExecStop=" + program + " -t -n " + name,
        "KillSignal=SIGTERM",
        "KillMode=control-group",
        "OOMScoreAdjust=-900",
        "# Restart=always",
        "Restart=on-failure",
        "RestartSec=5s",
        "StandardError=syslog",
        "",
        "[Install]",
        "WantedBy=multi-user.target",
    };
    return (lines.join(QLatin1Char('\n')) + QLatin1Char('\n')).toUtf8();
}

} // namespace

class tst_KorbServiceController : public QObject
{
    Q_OBJECT

private slots:
    void unitFile_data();
    void unitFile();
    void unitFileOwnerUnknown();
    void placeholdersFilledInOnePass_data();
    void placeholdersFilledInOnePass();
    void remainingArguments_data();
    void remainingArguments();
    void installDirectory_data();
    void installDirectory();
    void initScript();
    void activeAnswer_data();
    void activeAnswer();
    void statusWithoutSystemd();
};

void tst_KorbServiceController::unitFile_data()
{
    QTest::addColumn<QStringList>("processArguments");
    QTest::addColumn<QString>("rest");

    QTest::newRow("help example") << QStringList{"prog", "-i", "-n", "KORB.SRV", "-a", "-p 9080 -ps 9081"}
                                  << " -p 9080 -ps 9081";
    QTest::newRow("no arguments end with the name") << QStringList{"prog", "-i", "-n", "KORB.SRV"} << "";
    QTest::newRow("account and password stay")
        << QStringList{"prog", "-i", "acc", "pw", "-n", "KORB.SRV"} << " acc pw";
    QTest::newRow("-e is dropped, other options stay")
        << QStringList{"prog", "-n", "KORB.SRV", "-e", "-i", "-lt", "3"} << " -lt 3";
}

void tst_KorbServiceController::unitFile()
{
    QFETCH(QStringList, processArguments);
    QFETCH(QString, rest);
    QTemporaryDir dir;
    QVERIFY(QDir(dir.path()).mkpath(QStringLiteral("opt/bin")));
    const QString program = dir.path() + QStringLiteral("/opt/bin/prog");
    QFile file(program);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.close();
    const QFileInfo info(program);

    const QByteArray text = KorbServiceController::unitFileText(
                                QStringLiteral("KORB.SRV"), QStringLiteral("KORB.SRV service 'Korb.RDV2'"),
                                processArguments, program)
                                .toUtf8();
    const QByteArray expected =
        expectedUnit(QStringLiteral("KORB.SRV service 'Korb.RDV2'"), QStringLiteral("KORB.SRV"),
                     QDir::tempPath() + QStringLiteral("/KORB.SRV-Korb.pid"), program, rest,
                     dir.path() + QStringLiteral("/opt"), info.owner(), info.group());
    // Line by line first, for a readable failure.
    const QList<QByteArray> got = text.split('\n');
    const QList<QByteArray> want = expected.split('\n');
    for (int i = 0; i < qMin(got.size(), want.size()); ++i)
        QCOMPARE(got.at(i), want.at(i));
    QCOMPARE(text, expected);
}

void tst_KorbServiceController::unitFileOwnerUnknown()
{
    if (::geteuid() != 0)
        QSKIP("giving a file to an unknown owner needs root");
    QTemporaryDir dir;
    const QString program = dir.path() + QStringLiteral("/prog");
    QFile file(program);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.close();
    // Numbers no user database here knows.
    QCOMPARE(::chown(QFile::encodeName(program).constData(), 54329, 54329), 0);
    QVERIFY(QFileInfo(program).owner().isEmpty());
    QCOMPARE(KorbServiceController::fileUser(program), QStringLiteral("korb"));
    QCOMPARE(KorbServiceController::fileGroup(program), QStringLiteral("korb"));
    const QString text = KorbServiceController::unitFileText("n", "d", {"p"}, program);
    QVERIFY(text.contains(QStringLiteral("\nUser=korb\nGroup=korb\n")));

    // A known owner with an unknown group: the group takes the user's value.
    QCOMPARE(::chown(QFile::encodeName(program).constData(), 0, 54329), 0);
    QCOMPARE(KorbServiceController::fileGroup(program), QFileInfo(program).owner());
}

void tst_KorbServiceController::placeholdersFilledInOnePass_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QStringList>("values");
    QTest::addColumn<QString>("expected");

    QTest::newRow("values holding placeholders stay as they are")
        << "%0|%1" << QStringList{"%1", "x%0"} << "%1|x%0";
    QTest::newRow("repeated placeholder") << "%1 -n %1" << QStringList{"", "N"} << "N -n N";
    QTest::newRow("%8 and %% untouched") << "%8 %% 100%" << QStringList{"a"} << "%8 %% 100%";
    QTest::newRow("all eight") << "%7%6%5%4%3%2%1%0" << QStringList{"0", "1", "2", "3", "4", "5", "6", "7"}
                               << "76543210";
    QTest::newRow("%10 is %1 then 0") << "%10" << QStringList{"a", "b"} << "b0";
}

void tst_KorbServiceController::placeholdersFilledInOnePass()
{
    QFETCH(QString, text);
    QFETCH(QStringList, values);
    QFETCH(QString, expected);
    QCOMPARE(KorbServiceController::fillPlaceholders(text, values), expected);
}

void tst_KorbServiceController::remainingArguments_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("expected");
    QTest::newRow("only program") << QStringList{"prog"} << "";
    QTest::newRow("all removed") << QStringList{"prog", "-i", "-n", "N", "-e", "-a"} << "";
    QTest::newRow("name anywhere") << QStringList{"prog", "N", "-x", "N"} << " -x";
    QTest::newRow("case matters") << QStringList{"prog", "-I", "-N", "n"} << " -I -N n";
    QTest::newRow("program path kept when repeated") << QStringList{"prog", "prog"} << " prog";
}

void tst_KorbServiceController::remainingArguments()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, expected);
    QCOMPARE(KorbServiceController::remainingArguments(arguments, QStringLiteral("N")), expected);
}

void tst_KorbServiceController::installDirectory_data()
{
    QTest::addColumn<QString>("program");
    QTest::addColumn<QString>("expected");
    QTest::newRow("absolute") << "/opt/x/bin/prog"
                              << "/opt/x";
    QTest::newRow("backslashes") << "C:\\korb\\bin\\prog.exe"
                                 << "C:/korb";
    QTest::newRow("double slash keeps the empty part") << "/opt//prog"
                                                       << "/opt";
    QTest::newRow("top level") << "/prog"
                               << "";
}

void tst_KorbServiceController::installDirectory()
{
    QFETCH(QString, program);
    QFETCH(QString, expected);
    QCOMPARE(KorbServiceController::installDirectory(program), expected);
}

void tst_KorbServiceController::initScript()
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

void tst_KorbServiceController::activeAnswer_data()
{
    QTest::addColumn<QString>("answer");
    QTest::addColumn<bool>("running");
    QTest::newRow("active") << "active" << true;
    QTest::newRow("ACTIVE") << "ACTIVE" << true;
    QTest::newRow("activating") << "activating" << true;
    QTest::newRow("reloading") << "reloading" << true;
    QTest::newRow("with line end") << "active\n" << true;
    QTest::newRow("deactivating") << "deactivating" << false;
    QTest::newRow("inactive") << "inactive" << false;
    QTest::newRow("failed") << "failed" << false;
    QTest::newRow("empty") << "" << false;
}

void tst_KorbServiceController::activeAnswer()
{
    QFETCH(QString, answer);
    QFETCH(bool, running);
    QCOMPARE(KorbSystemd::activeAnswerMeansRunning(answer), running);
}

void tst_KorbServiceController::statusWithoutSystemd()
{
    QFile comm(QStringLiteral("/proc/1/comm"));
    QVERIFY(comm.open(QIODevice::ReadOnly));
    if (comm.readAll().trimmed() == "systemd" || QFileInfo::exists(QStringLiteral("/run/systemd/system")))
        QSKIP("this machine runs systemd");
    QVERIFY(!KorbSystemd::isSystemd());
    const KorbServiceStatus row = KorbServiceController::status("n", "/p", "-a 1");
    QCOMPARE(row.state, 0);
    QCOMPARE(row.statusText, QStringLiteral("UNKNOWN          "));
    QCOMPARE(row.statusText.size(), 17);
    QCOMPARE(row.command, QStringLiteral("/p -a 1"));
    QCOMPARE(KorbServiceController::status("n", "/p", "").command, QStringLiteral("/p"));
}

QTEST_GUILESS_MAIN(tst_KorbServiceController)
#include "tst_korb_service_controller.moc"
