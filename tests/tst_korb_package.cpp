// The Debian package: built with CPack from this build tree, its contents,
// control fields and dependencies read with dpkg-deb, checked by lintian, then
// installed, run as a service and purged in a throwaway systemd container.
#include "support/svc_container.h"

#include <QtTest>

namespace {

const QString PackageDir = QStringLiteral(KORB_PACKAGE_DIR);
// The container mounts its own /tmp, so the package is bound in here.
const QString PackageInContainer = QStringLiteral("/opt/korbpkg");
// Stripping and reading the dependencies of three binaries, with room for a
// busy machine.
constexpr int CpackWaitMs = 240000;
constexpr int LintianWaitMs = 180000;

// Every file and link of the package, as dpkg-deb lists it, in sorted order; directories aside.
const QStringList Expected = {
    "-rw-r--r-- /etc/korbrdv/KorbRdv_streamer.ini",
    "-rw-r--r-- /usr/share/doc/korbrdv/README.md",
    "-rw-r--r-- /usr/share/doc/korbrdv/changelog.gz",
    "-rw-r--r-- /usr/share/doc/korbrdv/copyright",
    "-rw-r--r-- /usr/share/korbrdv/demo.rdv",
    "-rw-r--r-- /usr/share/korbrdv/viewer/index.html",
    "-rw-r--r-- /usr/share/korbrdv/viewer/rdv_decoder.js",
    "-rw-r--r-- /usr/share/korbrdv/viewer/viewer.css",
    "-rw-r--r-- /usr/share/korbrdv/viewer/viewer.js",
    "-rwxr-xr-x /usr/lib/korbrdv/bin/KorbRdv_streamer",
    "-rwxr-xr-x /usr/lib/korbrdv/bin/korb_rdv_client",
    "-rwxr-xr-x /usr/lib/korbrdv/bin/korb_rdv_sim",
    "lrwxrwxrwx /usr/bin/KorbRdv_streamer -> ../lib/korbrdv/bin/KorbRdv_streamer",
    "lrwxrwxrwx /usr/bin/korb_rdv_client -> ../lib/korbrdv/bin/korb_rdv_client",
    "lrwxrwxrwx /usr/bin/korb_rdv_sim -> ../lib/korbrdv/bin/korb_rdv_sim",
    "lrwxrwxrwx /usr/lib/korbrdv/etc -> /etc/korbrdv",
    "lrwxrwxrwx /usr/lib/korbrdv/logs -> /var/log/korbrdv",
    "lrwxrwxrwx /usr/lib/korbrdv/tmp -> /var/lib/korbrdv/tmp",
};

QString text(const SvcRun &run)
{
    return QString::fromUtf8(run.out + run.err);
}

} // namespace

class tst_KorbPackage : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        if (KORB_SANITIZED)
            QSKIP("the package is made from the plain build, not from this sanitizer build");
        for (const char *tool : {"dpkg-deb", "dpkg-shlibdeps"})
            if (QStandardPaths::findExecutable(QString::fromLatin1(tool)).isEmpty())
                QSKIP(qPrintable(QStringLiteral("%1 is missing (package dpkg-dev; make deps installs it)")
                                     .arg(QString::fromLatin1(tool))));

        QDir(PackageDir).removeRecursively();
        const SvcRun cpack = svcRun(QStringLiteral(KORB_CPACK_COMMAND),
                                    {"-G", "DEB", "--config", KORB_CPACK_CONFIG, "-B", PackageDir, "-D",
                                     "CPACK_OUTPUT_FILE_PREFIX=" + PackageDir},
                                    QProcessEnvironment::systemEnvironment(), CpackWaitMs);
        QVERIFY2(cpack.exitCode == 0, qPrintable(text(cpack)));
        const QString arch = QString::fromUtf8(svcRun("dpkg", {"--print-architecture"}).out.trimmed());
        m_package = PackageDir + QStringLiteral("/korbrdv_%1_%2.deb").arg(KORB_PACKAGE_VERSION, arch);
        QVERIFY2(QFileInfo::exists(m_package), qPrintable(m_package));

        // "lrwxrwxrwx root/root 0 2024-01-01 00:00 ./usr/bin/x -> ../lib/x": mode, path, target.
        const SvcRun list =
            svcRun("sh", {"-c",
                          "dpkg-deb --contents \"$0\" | awk '$1 !~ /^d/ {sub(/^\\./, \"\", $6); "
                          "print $1, $6 ($7 ? \" \" $7 \" \" $8 : \"\")}' | LC_ALL=C sort",
                          m_package});
        QVERIFY2(list.exitCode == 0, qPrintable(text(list)));
        m_listed = QString::fromUtf8(list.out).split('\n', Qt::SkipEmptyParts);
    }

    // Modes and link targets; the viewer's node_modules and tests, build files and the like stay out.
    void contents() { QCOMPARE(m_listed, Expected); }

    void control()
    {
        const auto field = [this](const char *name) {
            return QString::fromUtf8(svcRun("dpkg-deb", {"--field", m_package, name}).out.trimmed());
        };
        QCOMPARE(field("Package") + ' ' + field("Version"), QStringLiteral("korbrdv " KORB_PACKAGE_VERSION));
        QCOMPARE(svcRun("dpkg-deb", {"--info", m_package, "conffiles"}).out,
                 QByteArray("/etc/korbrdv/KorbRdv_streamer.ini\n"));
        // Read from the binaries, so each comes with the least version it needs.
        const QString depends = field("Depends");
        for (const QString library : {"libc6", "libstdc\\+\\+6", "libqt5core5a", "libqt5network5",
                                      "libqt5websockets5", "libmosquitto1"})
            QVERIFY2(depends.contains(QRegularExpression("(^|, )" + library + " \\(>= [^)]+\\)")),
                     qPrintable(library + ": " + depends));
    }

    // Lintian's exit status is not 0 where it finds an error.
    void lintianFindsNoError()
    {
        const QString lintian = QStandardPaths::findExecutable(QStringLiteral("lintian"));
        if (lintian.isEmpty())
            QSKIP("lintian is not installed (make deps installs it where it can)");
        const SvcRun run =
            svcRun(lintian, {m_package}, QProcessEnvironment::systemEnvironment(), LintianWaitMs);
        QVERIFY2(run.exitCode == 0, qPrintable(text(run)));
    }

    void installRunPurge()
    {
        const QString unavailable = SvcContainer::unavailableReason();
        if (!unavailable.isEmpty())
            QSKIP(qPrintable(unavailable));
        SvcContainer container(QStringLiteral("kpkg"), PackageDir, PackageInContainer);
        const QString failedBoot = container.boot();
        if (!failedBoot.isEmpty())
            QSKIP(qPrintable(failedBoot));

        // One shell line in the container; a failed check shows its output.
        const auto sh = [&container](const QString &line) { return container.exec({"sh", "-c", line}); };
        const SvcRun install = sh("dpkg -i " + PackageInContainer + '/' + QFileInfo(m_package).fileName());
        QVERIFY2(install.exitCode == 0, qPrintable(text(install)));
        // Installing starts nothing; the recording folder waits to be named.
        QCOMPARE(sh("! pgrep -f ^/usr/lib/korbrdv/bin/ && test -d /var/lib/korbrdv/rec").exitCode, 0);

        // Through the link on the PATH, the installer still names the real program.
        const QString relay = QStringLiteral("/usr/lib/korbrdv/bin/KorbRdv_streamer");
        const QString args = QStringLiteral("-p 3011 -file=/usr/share/korbrdv/demo.rdv -addr=127.0.0.1:3999");
        const SvcRun unit = container.exec({"KorbRdv_streamer", "-i", "-n", "KorbRdv.pkg", "-a", args});
        QVERIFY2(unit.exitCode == 0 &&
                     unit.out.endsWith(("installed under:\n " + relay + ' ' + args + '\n').toUtf8()),
                 qPrintable(text(unit)));
        const QString unitFile = QString::fromUtf8(sh("cat /usr/lib/systemd/system/KorbRdv.pkg.service").out);
        QVERIFY2(unitFile.contains("\nWorkingDirectory=/usr/lib/korbrdv\n") &&
                     unitFile.contains("\nExecStart=" + relay + " -n KorbRdv.pkg " + args + '\n'),
                 qPrintable(unitFile));

        // Started by the relay itself; the query through the link finds the instance the registry holds
        // under the real path, with systemd's view of it.
        QCOMPARE(sh("KorbRdv_streamer -s -n KorbRdv.pkg").exitCode, 0);
        QTRY_COMPARE_WITH_TIMEOUT(text(sh("KorbRdv_streamer -q")),
                                  "KorbRdv.pkg\t1\tdisabled|active  \t'" + relay + ' ' + args + "'\n", 20000);
        SvcRun client;
        QTRY_VERIFY_WITH_TIMEOUT(
            (client = sh("korb_rdv_client ws://127.0.0.1:3011 --count 5 --timeout 10")).exitCode == 0, 30000);
        QVERIFY2(client.out.contains("\n5 packets, 0 malformed"), client.out.constData());

        // Run through the link in /usr/bin, the relay still finds ../tmp and
        // ../logs beside its real bin/, and the links there lead to /var.
        const QString run =
            "systemd-run --collect --unit=korbrdv-link KorbRdv_streamer -e -p 3012 -addr=127.0.0.1:3999";
        const QString found =
            "test -s /var/lib/korbrdv/tmp/KorbRdv_streamer-3012.pid && ls /var/log/korbrdv | grep ^rdv_";
        QCOMPARE(sh(run).exitCode, 0);
        QTRY_COMPARE_WITH_TIMEOUT(sh(found).exitCode, 0, 20000);
        QCOMPARE(sh("systemctl stop korbrdv-link").exitCode, 0);

        // A running instance is not started twice; stopped, it can be uninstalled.
        QCOMPARE(sh("KorbRdv_streamer -s -n KorbRdv.pkg").exitCode, -4);
        QCOMPARE(sh("KorbRdv_streamer -t -n KorbRdv.pkg").exitCode, 0);
        const SvcRun uninstall = sh("KorbRdv_streamer -u -n KorbRdv.pkg");
        QVERIFY2(uninstall.out.endsWith("The service KorbRdv.pkg has been uninstalled.\n"),
                 uninstall.out.constData());
        QCOMPARE(sh("ls /etc/init.d/KorbRdv.pkg* /usr/lib/systemd/system/KorbRdv.pkg*").out, QByteArray());

        // Purging refuses nothing and names the instance left installed.
        QCOMPARE(sh("KorbRdv_streamer -i -n KorbRdv.left").exitCode, 0);
        const QStringList owned = text(sh("dpkg -L korbrdv")).split('\n').filter("korb", Qt::CaseInsensitive);
        QVERIFY(owned.contains(relay));
        const SvcRun purge = sh("dpkg --purge korbrdv");
        QVERIFY2(purge.exitCode == 0 && purge.out.contains("\n    KorbRdv_streamer -u -n KorbRdv.left\n") &&
                     !purge.out.contains("-u -n KorbRdv.pkg"),
                 qPrintable(text(purge)));

        // Nothing of the package stays but the logs.
        const SvcRun left = container.exec(
            QStringList{"sh", "-c", "for f; do [ -e \"$f\" ] || [ -L \"$f\" ] && echo \"$f\"; done; true",
                        "sh"} +
            owned + QStringList{"/var/lib/korbrdv"});
        QCOMPARE(left.out + sh("find /var/log/korbrdv -mindepth 1 ! -name 'rdv_*.txt'").out, QByteArray());
    }

private:
    QString m_package;
    QStringList m_listed;
};

QTEST_GUILESS_MAIN(tst_KorbPackage)
#include "tst_korb_package.moc"
