// The real executable as a real systemd unit, in a throwaway container whose
// process 1 is systemd: install, start, query, stop and uninstall.
#include "support/svc_sandbox.h"

#include <QFileInfo>
#include <QtTest>

#include <unistd.h>

class tst_KorbServiceSystemd : public QObject
{
    Q_OBJECT

    // The container tool lives in the shared folder beside the checkout; its
    // container mounts its own /tmp, so the programs are bound in.
    const QString m_tool =
        QFileInfo(QStringLiteral(KORB_SOURCE_DIR "/../shared/tools/systemd-container")).isFile()
            ? QStringLiteral(KORB_SOURCE_DIR "/../shared/tools/systemd-container")
            : QStringLiteral("/work/shared/tools/systemd-container");
    const QString m_name = QStringLiteral("ksvc%1").arg(::getpid());
    SvcRun tool(const QStringList &arguments) const
    {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert("KTC_NSPAWN_OPTS", "--bind-ro=" KORB_TEST_PROGRAMS_DIR ":/opt/korbsvc/bin");
        return svcRun(m_tool, arguments, environment, 90000);
    }
    QByteArray out(const QString &command) const { return tool({"exec", m_name, "sh", "-c", command}).out; }
    int status(const QString &command) const { return tool({"exec", m_name, "sh", "-c", command}).exitCode; }

private slots:
    void unitLifecycle()
    {
        if (::geteuid() != 0 || !QFileInfo(m_tool).isExecutable() ||
            !QFile::exists("/usr/bin/systemd-nspawn"))
            QSKIP("needs root, the systemd container tool and systemd-nspawn (package systemd-container)");
        const SvcRun boot = tool({"start", m_name});
        if (boot.exitCode != 0)
            QSKIP(qPrintable("the systemd container did not boot: " + (boot.out + boot.err).right(400)));
        const QString p = QStringLiteral("/opt/korbsvc/bin/korb_test_service");
        const QString unit = QStringLiteral("/usr/lib/systemd/system/svc.Unit.service");
        QCOMPARE(status(p + " -i -n svc.Unit -a '-lt 3'"), 0);
        QCOMPARE(out("grep -E '^(ExecStart|User)=' " + unit + "; stat -c %a /etc/init.d/svc.Unit"),
                 "User=root\nExecStart=" + p.toUtf8() + " -n svc.Unit -lt 3\n755\n");
        QCOMPARE(status(p + " -s -n svc.Unit"), 0);
        const QByteArray listed = "svc.Unit   \t%1\t'" + p.toUtf8() + " -lt 3'\n";
        QTRY_COMPARE_WITH_TIMEOUT(out(p + " -q"), QByteArray(listed).replace("%1", "1\tdisabled|active  "),
                                  20000);
        QTRY_COMPARE_WITH_TIMEOUT(status(p + " -p -n svc.Unit"), 0, 10000);
        QCOMPARE(status(p + " -s -n svc.Unit"), -4);
        QCOMPARE(status(p + " -t -n svc.Unit"), 0);
        QCOMPARE(out(p + " -q"), QByteArray(listed).replace("%1", "0\tdisabled|inactive"));
        QCOMPARE(status(p + " -u -n svc.Unit"), 0);
        QCOMPARE(out("ls /etc/init.d/svc.Unit* " + unit + "; " + p + " -qa"), QByteArray());
    }

    void cleanupTestCase() { tool({"stop", m_name}); }
};

QTEST_GUILESS_MAIN(tst_KorbServiceSystemd)
#include "tst_korb_service_systemd.moc"
