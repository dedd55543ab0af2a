// The real executable as a real systemd unit, in a throwaway container whose
// process 1 is systemd: install, start, query, stop and uninstall.
#include "support/svc_container.h"

#include <QtTest>

#include <unistd.h>

class tst_KorbServiceSystemd : public QObject
{
    Q_OBJECT

private slots:
    void unitLifecycle()
    {
        const QString unavailable = SvcContainer::unavailableReason();
        if (!unavailable.isEmpty())
            QSKIP(qPrintable(unavailable));
        // The container mounts its own /tmp, so the programs are bound in.
        SvcContainer container(QStringLiteral("ksvc"), QStringLiteral(KORB_TEST_PROGRAMS_DIR),
                               QStringLiteral("/opt/korbsvc/bin"));
        const QString failedBoot = container.boot();
        if (!failedBoot.isEmpty())
            QSKIP(qPrintable(failedBoot));
        const auto out = [&](const QString &command) { return container.exec({"sh", "-c", command}).out; };
        const auto status = [&](const QString &command) {
            return container.exec({"sh", "-c", command}).exitCode;
        };

        const QString p = QStringLiteral("/opt/korbsvc/bin/korb_test_service");
        const QString name = QStringLiteral("svc.Unit%1").arg(::getpid());
        const QString unit = QStringLiteral("/usr/lib/systemd/system/%1.service").arg(name);
        QCOMPARE(status(p + " -i -n " + name + " -a '-lt 3'"), 0);
        QCOMPARE(out("grep -E '^(ExecStart|User)=' " + unit + "; stat -c %a /etc/init.d/" + name),
                 QStringLiteral("User=root\nExecStart=%1 -n %2 -lt 3\n755\n").arg(p, name).toUtf8());
        QCOMPARE(status(p + " -s -n " + name), 0);
        const QString listed = QStringLiteral("%1\t%3\t'%2 -lt 3'\n").arg(name, p);
        QTRY_COMPARE_WITH_TIMEOUT(out(p + " -q"), listed.arg("1\tdisabled|active  ").toUtf8(), 20000);
        QTRY_COMPARE_WITH_TIMEOUT(status(p + " -p -n " + name), 0, 10000);
        QCOMPARE(status(p + " -s -n " + name), -4);
        QCOMPARE(status(p + " -t -n " + name), 0);
        QCOMPARE(out(p + " -q"), listed.arg("0\tdisabled|inactive").toUtf8());
        QCOMPARE(status(p + " -u -n " + name), 0);
        QCOMPARE(out("ls /etc/init.d/" + name + "* " + unit + "; " + p + " -qa"), QByteArray());
    }
};

QTEST_GUILESS_MAIN(tst_KorbServiceSystemd)
#include "tst_korb_service_systemd.moc"
