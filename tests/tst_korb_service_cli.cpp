// The management command line of the real executable, run in the sandbox:
// arguments and the machine's state (registry, systemd and its answers)
// against exit status, output, and the registry, systemctl calls, installed
// files and operations of the service afterwards.
#include "support/svc_sandbox.h"

#include "service/korb_service_controller.h"

#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>
#include <QtTest>

#include <unistd.h>

namespace {

// %N: no running instance has this name. The registry entries a row's setup
// names ("mine", "other") and their lines when read back.
const QString Name = QStringLiteral("Korb.CliTest");
const QByteArray Mine = "Korb.CliTest\\path=%P\nKorb.CliTest\\args=-x\n";
const QByteArray Other = "zz.other\\path=/opt/other/bin/prog\nzz.other\\args=-y\n";
const QString MineLine = QStringLiteral("Korb.CliTest args=-x path=%P");
const QString OtherLine = QStringLiteral("zz.other args=-y path=/opt/other/bin/prog");

// The unit lines an operator relies on, the init script's mode and its link.
QStringList installed(const SvcSandbox &box)
{
    QStringList seen;
    QFile unit(box.path(QStringLiteral("unit/Korb.CliTest.service")));
    static const QRegularExpression key(
        QStringLiteral("^(User|Group|WorkingDirectory|Environment|ExecStart(Pre)?|# ApplicationPIDFile)="));
    for (const QString &line :
         QString::fromUtf8(unit.open(QIODevice::ReadOnly) ? unit.readAll() : "").split('\n'))
        if (key.match(line).hasMatch())
            seen << line;
    const QDir init(box.path(QStringLiteral("upper/init.d")));
    for (const QFileInfo &file : init.entryInfoList(QDir::Files | QDir::System)) {
        const int mode = file.permissions();
        seen << (file.isSymLink() ? file.fileName() + " -> " + init.relativeFilePath(file.symLinkTarget())
                                  : QStringLiteral("%1 %2%3%4")
                                        .arg(file.fileName())
                                        .arg(mode >> 12 & 7)
                                        .arg(mode >> 4 & 7)
                                        .arg(mode & 7));
    }
    return seen;
}

} // namespace

class tst_KorbServiceCli : public QObject
{
    Q_OBJECT

    QString m_program;
    QStringList fill(QStringList texts) const
    {
        const QFileInfo program(m_program);
        for (QString &text : texts)
            text.replace(QLatin1String("%N"), Name)
                .replace(QLatin1String("%P"), m_program)
                .replace(QLatin1String("%D"), QFileInfo(program.path()).path())
                .replace(QLatin1String("%T"), QDir::tempPath())
                .replace(QLatin1String("%U"), program.owner())
                .replace(QLatin1String("%G"), program.group());
        return texts;
    }
    // Exact, or a prefix where `expected` ends with "...".
    void compareText(const QString &actual, const QString &expected)
    {
        const QString want = fill({expected}).first();
        if (want.endsWith(QLatin1String("...")))
            QVERIFY2(actual.startsWith(want.chopped(3)), qPrintable(actual));
        else
            QCOMPARE(actual, want);
    }

private slots:
    void initTestCase()
    {
        const QString reason = SvcSandbox::unavailableReason();
        if (!reason.isEmpty())
            QSKIP(qPrintable(reason));
        // Argument 0 is printed as it was typed, not as an absolute path.
        QVERIFY(QDir::setCurrent(QStringLiteral(KORB_TEST_PROGRAMS_DIR)));
        m_program = QFileInfo(SvcTest::program()).canonicalFilePath();
    }

    void command_data()
    {
        QTest::addColumn<QString>("setup");
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("out");
        QTest::addColumn<QString>("err");
        QTest::addColumn<QStringList>("after");
        const QString longName(300, QLatin1Char('x'));
        const QString notRunning = QStringLiteral("The service %N is not Running\n");
        const QString installedAs = QStringLiteral("The service %N has been installed under:\n %P ");
        const QString uninstalling = QStringLiteral("Удаление службы %N из systemd\n"
                                                    "Run: systemctl stop %N.service [OK]\n"
                                                    "Run: systemctl disable %N.service [OK]\n"
                                                    "Run: systemctl daemon-reload [OK]\n");
        const QStringList uninstalled = {"stop %N.service", "disable %N.service", "daemon-reload"};
        const QString row = QStringLiteral("Korb.CliTest\t%1\t%2\t'%P -x'\n");
        const QStringList queried = {MineLine, "is-enabled %N.service", "is-active %N.service",
                                     "is-failed %N.service"};
        const QStringList checked = {MineLine, "is-active %N.service"};
        auto add = [](const char *tag, const QString &setup, const QStringList &arguments, int status,
                      const QString &out, const QString &err, const QStringList &after = {}) {
            QTest::newRow(tag) << setup << arguments << status << out << err << after;
        };
        // Help, version and query win wherever they stand, in any letter case.
        add("-x -H", "", {"-x", "-H"}, 0, "\n./korb_test_service -[a|e|h|i|n|s|u|v|q]\n\t-i(nstall) ...", "");
        add("-V -h", "", {"-V", "-h"}, 0,
            "./korb_test_service rev.1110 - Powered by qt5158_Linux.x64_gcc1220\n", "");
        add("-dir", "", {"-dir"}, 0, "%D\n", "");
        add("-n NAME -x -T finds the stop", "", {"-n", "%N", "-x", "-T"}, -4, "", notRunning);
        add("300-character name cut to 255", "", {"-t", "-n", longName}, -4, "",
            "KorbService: 'name' is longer than 255 characters.\nThe service " + longName.left(255) +
                " is not Running\n");
        add("backslash becomes character 0", "", {"-t", "-n", "svc\\tail"}, -4, "",
            "KorbService: 'name' contains backslashes '\\'.\nThe service svc is not Running\n");
        add("-exec runs in the foreground without -exec", "KORB_TEST_SERVICE_EXIT=5",
            {"-lt", "3", "-exec", "-n", "%N"}, 5, "", "", {"start run= args=-lt|3|-n|%N"});
        add("the service process returns the application's code",
            "KORBSERVICE_RUN=1 KORB_TEST_SERVICE_EXIT=3", {"-n", "%N"}, 3, "", "",
            {"start run=1 args=-n|%N"});
        // The registry: install, uninstall, refusals and walks.
        add("-i -n NAME -a ARGS", "", {"-i", "-n", "%N", "-a", "-p 9080 -ps 9081"}, 0,
            installedAs + "-p 9080 -ps 9081\n", "",
            {"Korb.CliTest args=-p 9080 -ps 9081 automaticStartup=true description=%N test service path=%P"});
        add("install twice", "mine", {"-n", "%N", "-I"}, 0, "", "The service %N is already installed\n",
            {MineLine});
        add("install, registry not writable", "dir", {"-i", "-n", "%N"}, -1, "",
            "Cannot install \"%N\". Cannot write to: /etc/KorbService.conf. Check permissions.\n"
            "The service %N could not be installed: ...");
        add("-S, not installed", "", {"-S", "-n", "%N"}, -1, "", "The service %N is not installed\n");
        add("-n -all names -all", "", {"-n", "-all"}, -1, "", "The service -all is not installed\n");
        add("-t -all stops nothing", "mine", {"-t", "-all"}, 0, "", "", {MineLine});
        add("uninstall keeps the others", "mine other unit", {"-u", "-n", "%N"}, 0,
            uninstalling + "The service %N has been uninstalled.\n", "",
            QStringList{OtherLine} + uninstalled);
        add("uninstall, registry read-only", "mine ro", {"-u", "-n", "%N"}, -1, uninstalling,
            "Cannot uninstall \"%N\". Cannot write to: /etc/KorbService.conf. Check permissions.\n"
            "The service %N could not be uninstalled\n",
            QStringList{MineLine} + uninstalled);
        add("-u -all, every program's", "mine other", {"-u", "-all"}, 0, uninstalling + "...", "",
            uninstalled + QStringList{"stop zz.other.service", "disable zz.other.service", "daemon-reload",
                                      "exit 0", "exit 0"});
        // Listings: this program's unless -qa, no title, names at least 11 wide.
        add("-Qa lists this program's", "mine other", {"-Qa"}, 0, row.arg(0).arg("UNKNOWN          "), "",
            {MineLine, OtherLine});
        add("-qa after a stop lists all", "other", {"-t", "-n", "x", "-qa"}, 0,
            "zz.other   \t0\tUNKNOWN          \t'/opt/other/bin/prog -y'\n", "", {OtherLine});
        // Under systemd.
        add("install a unit", "systemd", {"-i", "-n", "%N", "-a", "-lt 3"}, 0,
            "Установка службы %N для systemd\nRun: systemctl daemon-reload [OK]\n"
            "Не забудьте включить службу %N и запустить её\nПример:\nsystemctl enable  %N.service\n"
            "systemctl start   %N.service\n  или\n/etc/init.d/%N start\n" +
                installedAs + "-lt 3\n",
            "",
            {"Korb.CliTest args=-lt 3 automaticStartup=true description=%N test service path=%P",
             "daemon-reload", "# ApplicationPIDFile=%T/%N-Korb.pid", "User=%U", "Group=%G",
             "WorkingDirectory=%D", "Environment=KORBSERVICE_RUN=1",
             "ExecStartPre=+/bin/rm -f %T/%N-Korb.pid", "ExecStart=%P -n %N -lt 3", "Korb.CliTest 755",
             "Korb.CliTest.service -> ../../usr/lib/systemd/system/%N.service"});
        add("start a deactivating unit", "systemd mine unit is-active=deactivating", {"-n", "%N"}, 0,
            "Run: systemctl start %N.service [OK]\n", "",
            checked + QStringList{"is-active %N.service", "start %N.service"});
        add("activating counts as running", "systemd mine unit is-active=activating", {"-s", "-n", "%N"}, -4,
            "", "The service %N is already Running\n", checked);
        add("stop a reloading unit", "systemd mine unit is-active=RELOADING", {"-t", "-n", "%N"}, 0,
            "Run: systemctl stop %N.service [OK]\n", "",
            checked + QStringList{"is-active %N.service", "stop %N.service"});
        add("query active", "systemd mine is-enabled=enabled is-active=active is-failed=active", {"-q"}, 0,
            row.arg(1).arg("enabled |active  "), "", queried);
        add("query failed", "systemd mine is-enabled=enabled is-active=failed is-failed=failed", {"-q"}, 0,
            row.arg(4).arg("enabled |failed  "), "", queried);
        add("query masked", "systemd mine is-enabled=masked is-active=active is-failed=active", {"-q"}, 0,
            row.arg(0).arg("masked  |active  "), "", queried);
    }

    void command()
    {
        QFETCH(QString, setup);
        QFETCH(QStringList, arguments);
        QFETCH(int, status);
        QFETCH(QString, out);
        QFETCH(QString, err);
        QFETCH(QStringList, after);
        const QStringList items = setup.split(QLatin1Char(' '), Qt::SkipEmptyParts);
        const SvcSandbox box(items.contains("systemd"));
        if (items.contains("mine") || items.contains("other"))
            box.write(QStringLiteral("upper/KorbService.conf"),
                      "[services]\n" +
                          QByteArray(items.contains("mine") ? Mine : "").replace("%P", m_program.toUtf8()) +
                          (items.contains("other") ? Other : ""));
        if (items.contains("unit"))
            QVERIFY(QFile(box.path(QStringLiteral("unit/Korb.CliTest.service"))).open(QIODevice::WriteOnly));
        QStringList environment;
        for (const QString &item : items) {
            if (item.startsWith(QLatin1String("is-")))
                box.write(item.section(QLatin1Char('='), 0, 0),
                          item.section(QLatin1Char('='), 1).toUtf8() + '\n');
            else if (item.contains(QLatin1Char('=')))
                environment << item;
        }
        const QString prepare =
            items.contains("dir") ? QStringLiteral("mkdir /etc/KorbService.conf")
            : items.contains("ro")
                ? QStringLiteral("mount --bind /etc/KorbService.conf /etc/KorbService.conf\n"
                                 "mount -o remount,ro,bind /etc/KorbService.conf")
                : QString();
        QTemporaryDir dir;
        const QString log = dir.filePath(QStringLiteral("log"));
        const SvcRun run = box.run(QStringLiteral("./korb_test_service"),
                                   arguments.replaceInStrings(QStringLiteral("%N"), Name),
                                   SvcTest::environment(log, environment), prepare);
        QCOMPARE(run.exitCode, status);
        // systemctl's "Std:" and "Err:" blocks are left out, its "Run:" lines stay.
        compareText(
            QString::fromUtf8(run.out).remove(QRegularExpression(QStringLiteral("(Std|Err): .*\n.*\n"))),
            out);
        compareText(QString::fromUtf8(run.err), err);
        // The test service records the status its exec() returned last.
        QCOMPARE(box.registryLines() + box.lines(QStringLiteral("calls")) + installed(box) +
                     SvcTest::readLog(log),
                 fill(after) << QStringLiteral("exit %1").arg(status));
        QVERIFY(!QFileInfo::exists(KorbServiceController::socketPath(Name)));
    }

    // Without systemd the instance runs detached as the service process, is
    // commanded over its channel, refuses a second start and stops.
    void detachedInstance_data()
    {
        QTest::addColumn<bool>("registered");
        QTest::addColumn<QStringList>("start");
        QTest::addColumn<QString>("started");
        QTest::newRow("-s starts the registered program")
            << true << QStringList{"-s", "-n", "%N"} << "start run=1 args=-n|%N|-lt|3";
        QTest::newRow("-CFG first: the default start detaches itself")
            << false << QStringList{"-CFG", "x.ini", "-n", "%N"} << "start run=1 args=-CFG|x.ini|-n|%N";
    }

    void detachedInstance()
    {
        QFETCH(bool, registered);
        QFETCH(QStringList, start);
        QFETCH(QString, started);
        const QString name = QStringLiteral("svcdet%1x%2").arg(::getpid()).arg(registered);
        QTemporaryDir dir;
        const SvcTest::DetachedGuard guard{dir.filePath(QStringLiteral("log")),
                                           KorbServiceController::socketPath(name)};
        const SvcSandbox box;
        if (registered)
            QCOMPARE(box.run(m_program, {"-i", "-n", name, "-a", "-lt 3"}).exitCode, 0);
        auto command = [&](QStringList arguments) {
            return box.run(m_program, arguments.replaceInStrings(QStringLiteral("%N"), name),
                           SvcTest::environment(guard.log));
        };
        QCOMPARE(command(start).exitCode, 0);
        QTRY_VERIFY_WITH_TIMEOUT(QFileInfo::exists(guard.socket), 10000);
        QCOMPARE(command(start).exitCode, -4);
        for (const QStringList &arguments : {QStringList{"-P", "-n", "%N"},
                                             {"-r", "-n", "%N"},
                                             {"-command", "99", "-n", "%N"},
                                             {"-c", "abc", "-n", "%N"}})
            QCOMPARE(command(arguments).exitCode, 0);
        QCOMPARE(command({"-n", "%N", "-t"}).exitCode, 0);
        QTRY_VERIFY_WITH_TIMEOUT(!QFileInfo::exists(guard.socket), 10000);
        QStringList log = SvcTest::readLog(guard.log);
        log.removeAll(QStringLiteral("exit 0"));
        QCOMPARE(log, (QStringList{QString(started).replace(QLatin1String("%N"), name), "exit -4", "pause",
                                   "resume", "command 99", "command 0", "stop"}));
    }
};

QTEST_GUILESS_MAIN(tst_KorbServiceCli)
#include "tst_korb_service_cli.moc"
