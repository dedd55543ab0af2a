// The management command line of the real executable, run in the sandbox: arguments and the state of the
// machine (registry, systemd and its answers, a running instance) against exit status, output, and afterwards
// the registry, the systemctl calls, the installed files and the operations the instance recorded.
#include "support/svc_sandbox.h"

#include "service/korb_service_controller.h"

#include <QtTest>

#include <unistd.h>

namespace {

// %N, unique to this process and always 15 characters long.
const QString Name = QStringLiteral("Korb.Cli%1").arg(::getpid(), 7, 10, QLatin1Char('0'));
const QString Mine = QStringLiteral("%N args=-x path=%P");
const QString Other = QStringLiteral("zz.other args=-y path=/opt/other/bin/prog");

QString mode(int p)
{
    return QString::number((p >> 12 & 7) << 6 | (p >> 4 & 7) << 3 | (p & 7), 8);
}

// The unit lines an operator relies on, the init script's mode and its link.
QStringList installed(const SvcSandbox &box)
{
    QStringList seen =
        box.lines("unit/" + Name + ".service")
            .filter(QRegularExpression(
                "^(User|Group|WorkingDirectory|Environment|ExecStart(Pre)?|# ApplicationPIDFile)="));
    const QDir init(box.path("upper/init.d"));
    for (const QFileInfo &file : init.entryInfoList(QDir::Files | QDir::System))
        seen << file.fileName() + (file.isSymLink() ? " -> " + init.relativeFilePath(file.symLinkTarget())
                                                    : " " + mode(file.permissions()));
    return seen;
}

} // namespace

class tst_KorbServiceCli : public QObject
{
    Q_OBJECT

    QString m_program;
    void compareText(const QString &actual, const QString &expected)
    {
        if (expected.endsWith("..."))
            QVERIFY2(actual.startsWith(expected.chopped(3)), qPrintable(actual));
        else
            QCOMPARE(actual, expected);
    }
    QString fill(QString text) const
    {
        const QFileInfo program(m_program);
        return text.replace("%N", Name)
            .replace("%P", m_program)
            .replace("%D", QFileInfo(program.path()).path())
            .replace("%T", QDir::tempPath())
            .replace("%U", program.owner())
            .replace("%G", program.group());
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
        QTest::addColumn<QString>("arguments"); // '|'-separated
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("out");   // a prefix where it ends with "..."
        QTest::addColumn<QString>("err");   // likewise
        QTest::addColumn<QString>("after"); // registry, calls, files; ';'-separated
        QTest::addColumn<QString>("log");   // what the instance recorded, in any order
        auto add = [](const char *tag, const char *setup, const QString &arguments, int status,
                      const QString &out, const QString &err, const QString &after = QString(),
                      const QString &log = QString()) {
            QTest::newRow(tag) << setup << arguments << status << out << err << after << log;
        };
        const QString notRunning = "The service %N is not Running\n";
        const QString installedAs = "The service %N has been installed under:\n %P ";
        const QString uninstalling =
            "Удаление службы %N из systemd\nRun: systemctl stop %N.service [OK]\n"
            "Run: systemctl disable %N.service [OK]\nRun: systemctl daemon-reload [OK]\n";
        const QString uninstalled = ";stop %N.service;disable %N.service;daemon-reload";
        const QString row = "%N\t%1\t%2\t'%P -x'\n";
        const QString queried = Mine + ";is-enabled %N.service;is-active %N.service;is-failed %N.service";
        const QString checked = Mine + ";is-active %N.service";
        const QString started = "start run=1 args=-n|%N";
        // clang-format off
        // Help, version and query win wherever they stand, in any letter case.
        add("-x -H", "", "-x|-H", 0, "\n./korb_test_service -[a|e|h|i|n|s|u|v|q]\n\t-i(nstall) ...", "");
        add("-dir", "", "-dir", 0, "%D\n", "");
        add("-n NAME -x -T finds the stop", "", "-n|%N|-x|-T", -4, "", notRunning);
        add("300-character name cut to 255", "", "-t|-n|" + QString(300, 'x'), -4, "", "KorbService: 'name' is longer than 255 characters.\nThe service " + QString(255, 'x') + " is not Running\n");
        add("backslash becomes character 0", "", "-t|-n|svc\\tail", -4, "", "KorbService: 'name' contains backslashes '\\'.\nThe service svc is not Running\n");
        add("-exec runs in the foreground without -exec", "KORB_TEST_SERVICE_EXIT=5", "-lt|3|-exec|-n|%N", 5, "", "", "", "start run= args=-lt|3|-n|%N");
        add("the service process returns the application's code", "KORBSERVICE_RUN=1 KORB_TEST_SERVICE_EXIT=3", "-n|%N", 3, "", "", "", started);
        // Starting detached, and commanding a running instance.
        add("-CFG first: the default start detaches itself", "", "-CFG|x.ini|-n|%N", 0, "", "", "", "start run=1 args=-CFG|x.ini|-n|%N");
        add("-s starts the registered program detached", "mine", "-s|-n|%N", 0, "", "", Mine, started + "|-x");
        add("-s refuses a running instance", "mine running", "-s|-n|%N", -4, "", "The service %N is already Running\n", Mine, started);
        add("the default start refuses a running instance", "running", "-CFG|x|-n|%N", -4, "", "Service %N is Running!\n", "", started);
        add("-P pauses", "running", "-P|-n|%N", 0, "", "", "", started + ";pause");
        add("-c abc sends 0", "running", "-c|abc|-n|%N", 0, "", "", "", started + ";command 0");
        add("-n NAME -t stops", "running", "-n|%N|-t", 0, "", "", "", started + ";stop;exit 0");
        // The registry: install, uninstall, refusals and walks.
        add("-i -n NAME -a ARGS", "", "-i|-n|%N|-a|-p 9080 -ps 9081", 0, installedAs + "-p 9080 -ps 9081\n", "", "%N args=-p 9080 -ps 9081 automaticStartup=true description=%N test service path=%P");
        add("install twice", "mine", "-n|%N|-I", 0, "", "The service %N is already installed\n", Mine);
        add("install, registry not writable", "dir", "-i|-n|%N", -1, "", "Cannot install \"%N\". Cannot write to: /etc/KorbService.conf. Check permissions.\nThe service %N could not be installed: ...");
        add("-S, not installed", "", "-S|-n|%N", -1, "", "The service %N is not installed\n");
        add("-n -all names -all", "", "-n|-all", -1, "", "The service -all is not installed\n");
        add("-t -all stops nothing", "mine", "-t|-all", 0, "", "", Mine);
        add("uninstall removes unit and script, keeps the others", "mine other unit script", "-u|-n|%N", 0, uninstalling + "The service %N has been uninstalled.\n", "", Other + uninstalled);
        add("uninstall, registry read-only", "mine ro", "-u|-n|%N", -1, uninstalling, "Cannot uninstall \"%N\". Cannot write to: /etc/KorbService.conf. Check permissions.\nThe service %N could not be uninstalled\n", Mine + uninstalled);
        add("-u -all, every program's", "mine other", "-u|-all", 0, uninstalling + "...", "", uninstalled.mid(1) + ";stop zz.other.service;disable zz.other.service;daemon-reload", "exit 0;exit 0");
        // Listings: this program's unless -qa, no title, names at least 11 wide.
        add("-Qa lists this program's", "mine other", "-Qa", 0, row.arg(0).arg("UNKNOWN          "), "", Mine + ";" + Other);
        add("-qa after a stop lists all", "other", "-t|-n|x|-qa", 0, "zz.other   \t0\tUNKNOWN          \t'/opt/other/bin/prog -y'\n", "", Other);
        // Under systemd.
        add("install a unit", "systemd", "-i|-n|%N|-a|-lt 3", 0, "Установка службы %N для systemd\nRun: systemctl daemon-reload [OK]\n...", "",
            "%N args=-lt 3 automaticStartup=true description=%N test service path=%P;daemon-reload;# ApplicationPIDFile=%T/%N-Korb.pid;User=%U;Group=%G;WorkingDirectory=%D;"
            "Environment=KORBSERVICE_RUN=1;ExecStartPre=+/bin/rm -f %T/%N-Korb.pid;ExecStart=%P -n %N -lt 3;%N 755;%N.service -> ../../usr/lib/systemd/system/%N.service");
        add("start a deactivating unit", "systemd mine unit is-active=deactivating", "-s|-n|%N", 0, "Run: systemctl start %N.service [OK]\n", "", checked + ";is-active %N.service;start %N.service;User=x");
        add("activating counts as running", "systemd mine unit is-active=activating", "-s|-n|%N", -4, "", "The service %N is already Running\n", checked + ";User=x");
        add("stop a reloading unit", "systemd mine unit is-active=RELOADING", "-t|-n|%N", 0, "Run: systemctl stop %N.service [OK]\n", "", checked + ";is-active %N.service;stop %N.service;User=x");
        add("query active", "systemd mine is-enabled=enabled is-active=active is-failed=active", "-q", 0, row.arg(1).arg("enabled |active  "), "", queried);
        add("query failed", "systemd mine is-enabled=enabled is-active=failed is-failed=failed", "-q", 0, row.arg(4).arg("enabled |failed  "), "", queried);
        add("query masked", "systemd mine is-enabled=masked is-active=active is-failed=active", "-q", 0, row.arg(0).arg("masked  |active  "), "", queried);
        // clang-format on
    }

    void command()
    {
        QFETCH(QString, setup);
        QFETCH(QString, arguments);
        QFETCH(int, status);
        QFETCH(QString, out);
        QFETCH(QString, err);
        QFETCH(QString, after);
        QFETCH(QString, log);
        const QStringList items = setup.split(' ', Qt::SkipEmptyParts);
        const SvcSandbox box(items.contains("systemd"));
        if (!items.contains("dir"))
            box.write(
                "upper/KorbService.conf",
                fill(QString("[services]\n") + (items.contains("mine") ? "%N\\path=%P\n%N\\args=-x\n" : "") +
                     (items.contains("other") ? "zz.other\\path=/opt/other/bin/prog\nzz.other\\args=-y\n"
                                              : ""))
                    .toUtf8());
        if (items.contains("unit"))
            box.write("unit/" + Name + ".service", "User=x\n");
        if (items.contains("script") && QDir().mkpath(box.path("upper/init.d")))
            box.write("upper/init.d/" + Name, "");
        for (const QString &answer : items.filter(QRegularExpression("^is-")))
            box.write(answer.section('=', 0, 0), answer.section('=', 1).toUtf8() + '\n');
        QTemporaryDir dir;
        const SvcTest::DetachedGuard guard{dir.filePath("log"), KorbServiceController::socketPath(Name)};
        QProcess running;
        const auto reap = qScopeGuard([&running] { running.kill(), running.waitForFinished(); });
        if (items.contains("running")) {
            running.setProcessEnvironment(SvcTest::environment(guard.log, {"KORBSERVICE_RUN=1"}));
            running.start(m_program, {"-n", Name});
            QTRY_VERIFY(QFileInfo::exists(guard.socket));
        }
        const char *prepare = items.contains("dir") ? "mkdir /etc/KorbService.conf"
                              : items.contains("ro")
                                  ? "mount --bind /etc/KorbService.conf /etc/KorbService.conf\n"
                                    "mount -o remount,ro,bind /etc/KorbService.conf"
                                  : "";
        const SvcRun run =
            box.run("./korb_test_service", fill(arguments).split('|'),
                    SvcTest::environment(guard.log, items.filter(QRegularExpression("^[A-Z_]+="))), prepare);
        QCOMPARE(run.exitCode, status);
        // systemctl's "Std:" and "Err:" blocks are left out, its "Run:" lines stay.
        compareText(QString::fromUtf8(run.out).remove(QRegularExpression("(Std|Err): .*\n.*\n")), fill(out));
        compareText(QString::fromUtf8(run.err), fill(err));
        QCOMPARE(box.registryLines() + box.lines("calls") + installed(box),
                 fill(after).split(';', Qt::SkipEmptyParts));
        // A detached instance records beside its starter: any order.
        QStringList recorded = fill(log).split(';', Qt::SkipEmptyParts) << QString("exit %1").arg(status);
        recorded.sort();
        QTRY_COMPARE(SvcTest::readLog(guard.log), recorded);
    }
};

QTEST_GUILESS_MAIN(tst_KorbServiceCli)
#include "tst_korb_service_cli.moc"
