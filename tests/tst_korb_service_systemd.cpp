// Installation as a real systemd unit: the real executable inside a
// throwaway container whose process 1 is systemd. Install writes the unit
// file, init script and link and reloads systemd; -s starts the unit, -q
// shows it running, -t stops it and -u removes everything again.
#include "support/svc_service_process.h"

#include <QFileInfo>
#include <QtTest>

#include <unistd.h>

namespace {

// The container tool lives in the shared folder beside the checkout.
QString containerTool()
{
    const QString beside = QStringLiteral(KORB_SOURCE_DIR "/../shared/tools/systemd-container");
    if (QFileInfo(beside).isExecutable())
        return QFileInfo(beside).canonicalFilePath();
    return QStringLiteral("/work/shared/tools/systemd-container");
}
// Boot takes about a second here; the tool gives up after 60 s by itself.
constexpr int BootWaitMs = 90000;
constexpr int StopWaitMs = 60000;
constexpr int CommandWaitMs = 60000;

// The container mounts its own /tmp, so the programs are bound in here.
const char *const ProgramsInContainer = "/opt/korbsvc/bin";

SvcRun runTool(const QStringList &arguments, int timeoutMs)
{
    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("KTC_NSPAWN_OPTS"),
                       QStringLiteral("--bind-ro=%1:%2")
                           .arg(QFileInfo(QStringLiteral(KORB_TEST_PROGRAMS_DIR)).canonicalFilePath(),
                                QString::fromLatin1(ProgramsInContainer)));
    process.setProcessEnvironment(environment);
    process.start(containerTool(), arguments);
    SvcRun run;
    if (!process.waitForStarted(5000))
        return run;
    run.finished = process.waitForFinished(timeoutMs) && process.exitStatus() == QProcess::NormalExit;
    if (!run.finished) {
        process.kill();
        process.waitForFinished(1000);
    }
    run.exitCode = qint8(process.exitCode());
    run.out = process.readAllStandardOutput();
    run.err = process.readAllStandardError();
    return run;
}

// Stops the container whatever way the test leaves.
struct Container
{
    QString name;
    bool started = false;
    ~Container()
    {
        if (started)
            runTool({QStringLiteral("stop"), name}, StopWaitMs);
    }
    SvcRun exec(const QStringList &command) const
    {
        return runTool(QStringList{QStringLiteral("exec"), name} + command, CommandWaitMs);
    }
    QByteArray read(const QString &path) const { return exec({QStringLiteral("cat"), path}).out; }
};

} // namespace

class tst_KorbServiceSystemd : public QObject
{
    Q_OBJECT

private slots:
    void unitLifecycle();
};

void tst_KorbServiceSystemd::unitLifecycle()
{
    if (::geteuid() != 0)
        QSKIP("the systemd container needs root");
    if (!QFileInfo(containerTool()).isExecutable())
        QSKIP("no systemd container tool here");
    if (!QFileInfo::exists(QStringLiteral("/usr/bin/systemd-nspawn")))
        QSKIP("systemd-nspawn is missing (package systemd-container)");

    Container container;
    container.name = QStringLiteral("ksvc%1").arg(::getpid());
    container.started = true; // stop also cleans up after a failed boot
    const SvcRun boot = runTool({QStringLiteral("start"), container.name}, BootWaitMs);
    if (!boot.finished || boot.exitCode != 0)
        QSKIP(qPrintable(QStringLiteral("the systemd container did not boot: %1")
                             .arg(QString::fromLocal8Bit(boot.out + boot.err).trimmed().right(400))));

    const QString program = QString::fromLatin1(ProgramsInContainer) + QStringLiteral("/korb_test_service");
    const QString name = QStringLiteral("svc.Unit%1").arg(::getpid());
    const QString unitFile = QStringLiteral("/usr/lib/systemd/system/%1.service").arg(name);
    const QString initScript = QStringLiteral("/etc/init.d/") + name;

    // Install.
    const SvcRun install = container.exec({program, "-i", "-n", name, "-a", "-lt 3"});
    QVERIFY(install.finished);
    QCOMPARE(install.exitCode, 0);
    // Labelling is tried only where /sys/fs/selinux exists; a failure is
    // reported with the tool's own text and does not stop the installation.
    if (container.exec({"test", "-d", "/sys/fs/selinux"}).exitCode == 0) {
        const QByteArray prefix = QStringLiteral("SELinux: cannot set bin_t for '%1'").arg(program).toUtf8();
        QVERIFY2(install.err.isEmpty() || (install.err.startsWith(prefix) && install.err.count('\n') == 1),
                 install.err.constData());
    } else {
        QCOMPARE(install.err, QByteArray());
    }
    const QString out = QString::fromUtf8(install.out);
    QVERIFY2(
        out.startsWith(
            QStringLiteral("Установка службы %1 для systemd\nRun: systemctl daemon-reload [OK]\n").arg(name)),
        install.out.constData());
    const QString reminder = QStringLiteral("Не забудьте включить службу %1 и запустить её\n"
                                            "Пример:\n"
                                            "systemctl enable  %1.service\n"
                                            "systemctl start   %1.service\n"
                                            "  или\n"
                                            "/etc/init.d/%1 start\n"
                                            "The service %1 has been installed under:\n %2 -lt 3\n")
                                 .arg(name, program);
    QVERIFY2(out.endsWith(reminder), install.out.constData());

    const QByteArray unit = container.read(unitFile);
    QVERIFY2(unit.contains(QStringLiteral("\nExecStart=%1 -n %2 -lt 3\n").arg(program, name).toUtf8()),
             unit.constData());
    QVERIFY(unit.contains("\nUser=root\nGroup=root\n"));
    QVERIFY(unit.endsWith("[Install]\nWantedBy=multi-user.target\n"));
    QVERIFY(container.read(initScript).startsWith("#!/bin/sh\n"));
    QCOMPARE(container.exec({"stat", "-c", "%a", initScript}).out, QByteArray("755\n"));
    QCOMPARE(container.exec({"readlink", initScript + ".service"}).out,
             QStringLiteral("../../usr/lib/systemd/system/%1.service\n").arg(name).toUtf8());
    QVERIFY(container.read("/etc/KorbService.conf")
                .contains(QStringLiteral("%1\\args=-lt 3").arg(name).toUtf8()));
    // systemd knows the unit after the reload.
    QCOMPARE(container.exec({"systemctl", "is-enabled", name + ".service"}).out, QByteArray("disabled\n"));

    // Start through systemctl; the query shows it running.
    const SvcRun start = container.exec({program, "-s", "-n", name});
    QCOMPARE(start.exitCode, 0);
    QVERIFY2(
        start.out.startsWith(QStringLiteral("Run: systemctl start %1.service [OK]\n").arg(name).toUtf8()),
        start.out.constData());
    const QByteArray running =
        QStringLiteral("%1\t1\tdisabled|active  \t'%2 -lt 3'\n").arg(name, program).toUtf8();
    SvcRun query;
    QTRY_VERIFY_WITH_TIMEOUT((query = container.exec({program, "-q"})).out.contains(running), 20000);
    // The service process answers on its channel inside the container.
    QTRY_COMPARE_WITH_TIMEOUT(container.exec({program, "-p", "-n", name}).exitCode, 0, 10000);
    const SvcRun again = container.exec({program, "-s", "-n", name});
    QCOMPARE(again.exitCode, -4);
    QCOMPARE(again.err, QStringLiteral("The service %1 is already Running\n").arg(name).toUtf8());

    // Stop through systemctl.
    const SvcRun stop = container.exec({program, "-t", "-n", name});
    QCOMPARE(stop.exitCode, 0);
    QVERIFY2(stop.out.startsWith(QStringLiteral("Run: systemctl stop %1.service [OK]\n").arg(name).toUtf8()),
             stop.out.constData());
    QCOMPARE(container.exec({program, "-q"}).out,
             QStringLiteral("%1\t0\tdisabled|inactive\t'%2 -lt 3'\n").arg(name, program).toUtf8());
    QCOMPARE(container.exec({program, "-t", "-n", name}).exitCode, -4);

    // Uninstall removes the files and the registry entry.
    const SvcRun uninstall = container.exec({program, "-u", "-n", name});
    QCOMPARE(uninstall.exitCode, 0);
    QVERIFY(
        uninstall.out.endsWith(QStringLiteral("The service %1 has been uninstalled.\n").arg(name).toUtf8()));
    QCOMPARE(container.exec({"test", "-e", unitFile}).exitCode, 1);
    QCOMPARE(container.exec({"test", "-e", initScript}).exitCode, 1);
    QCOMPARE(container.exec({"test", "-L", initScript + ".service"}).exitCode, 1);
    QCOMPARE(container.exec({program, "-qa"}).out, QByteArray());
}

QTEST_GUILESS_MAIN(tst_KorbServiceSystemd)
#include "tst_korb_service_systemd.moc"
