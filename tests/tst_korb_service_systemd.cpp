// Installation as a real systemd unit: the real executable in a throwaway
// container whose process 1 is systemd, through install, start, query, stop
// and uninstall.
#include "support/svc_container.h"
#include "support/svc_service_process.h"

#include <QtTest>

#include <unistd.h>

namespace {
// The container mounts its own /tmp, so the programs are bound in here.
const QString ProgramsInContainer = QStringLiteral("/opt/korbsvc/bin");
} // namespace

class tst_KorbServiceSystemd : public QObject
{
    Q_OBJECT

private slots:
    void unitLifecycle();
};

void tst_KorbServiceSystemd::unitLifecycle()
{
    const QString unavailable = SvcContainer::unavailableReason();
    if (!unavailable.isEmpty())
        QSKIP(qPrintable(unavailable));

    SvcContainer container(QStringLiteral("ksvc"), QStringLiteral(KORB_TEST_PROGRAMS_DIR),
                           ProgramsInContainer);
    const QString failedBoot = container.boot();
    if (!failedBoot.isEmpty())
        QSKIP(qPrintable(failedBoot));

    const QString program = ProgramsInContainer + QStringLiteral("/korb_test_service");
    const QString name = QStringLiteral("svc.Unit%1").arg(::getpid());
    const QString unitFile = QStringLiteral("/usr/lib/systemd/system/%1.service").arg(name);
    const QString initScript = QStringLiteral("/etc/init.d/") + name;

    const SvcRun install = container.exec({program, "-i", "-n", name, "-a", "-lt 3"});
    QCOMPARE(install.exitCode, 0);
    // Labelling is tried only where /sys/fs/selinux exists; otherwise nothing is said about it.
    if (container.exec({"test", "-d", "/sys/fs/selinux"}).exitCode != 0)
        QCOMPARE(install.err, QByteArray());
    const QString out = QString::fromUtf8(install.out);
    QVERIFY2(
        out.startsWith(
            QStringLiteral("Установка службы %1 для systemd\nRun: systemctl daemon-reload [OK]\n").arg(name)),
        install.out.constData());
    QVERIFY2(out.endsWith(QStringLiteral("Не забудьте включить службу %1 и запустить её\n"
                                         "Пример:\n"
                                         "systemctl enable  %1.service\n"
                                         "systemctl start   %1.service\n"
                                         "  или\n"
                                         "/etc/init.d/%1 start\n"
                                         "The service %1 has been installed under:\n %2 -lt 3\n")
                              .arg(name, program)),
             install.out.constData());

    const QByteArray unit = container.exec({"cat", unitFile}).out;
    QVERIFY2(unit.contains(QStringLiteral("\nExecStart=%1 -n %2 -lt 3\n").arg(program, name).toUtf8()),
             unit.constData());
    QVERIFY(unit.contains("\nUser=root\nGroup=root\n"));
    QVERIFY(container.exec({"cat", initScript}).out.startsWith("#!/bin/sh\n"));
    QCOMPARE(container.exec({"stat", "-c", "%a", initScript}).out, QByteArray("755\n"));
    QCOMPARE(container.exec({"readlink", initScript + ".service"}).out,
             QStringLiteral("../../usr/lib/systemd/system/%1.service\n").arg(name).toUtf8());

    // Start through systemctl; the query shows it running, its channel answers.
    const SvcRun start = container.exec({program, "-s", "-n", name});
    QCOMPARE(start.exitCode, 0);
    QVERIFY2(
        start.out.startsWith(QStringLiteral("Run: systemctl start %1.service [OK]\n").arg(name).toUtf8()),
        start.out.constData());
    const QByteArray running =
        QStringLiteral("%1\t1\tdisabled|active  \t'%2 -lt 3'\n").arg(name, program).toUtf8();
    QTRY_VERIFY_WITH_TIMEOUT(container.exec({program, "-q"}).out.contains(running), 20000);
    QTRY_COMPARE_WITH_TIMEOUT(container.exec({program, "-p", "-n", name}).exitCode, 0, 10000);
    const SvcRun again = container.exec({program, "-s", "-n", name});
    QCOMPARE(again.exitCode, -4);
    QCOMPARE(again.err, QStringLiteral("The service %1 is already Running\n").arg(name).toUtf8());

    const SvcRun stop = container.exec({program, "-t", "-n", name});
    QCOMPARE(stop.exitCode, 0);
    QVERIFY2(stop.out.startsWith(QStringLiteral("Run: systemctl stop %1.service [OK]\n").arg(name).toUtf8()),
             stop.out.constData());
    QCOMPARE(container.exec({program, "-q"}).out,
             QStringLiteral("%1\t0\tdisabled|inactive\t'%2 -lt 3'\n").arg(name, program).toUtf8());

    // Uninstall removes the files and the registry entry.
    const SvcRun uninstall = container.exec({program, "-u", "-n", name});
    QCOMPARE(uninstall.exitCode, 0);
    QVERIFY(
        uninstall.out.endsWith(QStringLiteral("The service %1 has been uninstalled.\n").arg(name).toUtf8()));
    const QString anyLeft =
        QStringLiteral("test -e %1 || test -e %2 || test -L %2.service").arg(unitFile, initScript);
    QCOMPARE(container.exec({"sh", "-c", anyLeft}).exitCode, 1);
    QCOMPARE(container.exec({program, "-qa"}).out, QByteArray());
}

QTEST_GUILESS_MAIN(tst_KorbServiceSystemd)
#include "tst_korb_service_systemd.moc"
