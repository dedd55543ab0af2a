// The Debian package: built with CPack from this build tree, its contents,
// control fields and dependencies read with dpkg-deb, checked by lintian, then
// installed, run as a service and purged in a throwaway systemd container.
#include "support/svc_container.h"

#include <QDir>
#include <QRegularExpression>
#include <QtTest>

namespace {

const QString PackageDir = QStringLiteral(KORB_PACKAGE_DIR);
// The container mounts its own /tmp, so the package is bound in here.
const QString PackageInContainer = QStringLiteral("/opt/korbpkg");
// Stripping and reading the dependencies of three binaries, with room for a
// busy machine.
constexpr int CpackWaitMs = 240000;
constexpr int LintianWaitMs = 180000;

struct Entry
{
    const char *what;
    QString path;
    QString mode;
    QString linkTarget;
};

const QString Executable = QStringLiteral("-rwxr-xr-x");
const QString Plain = QStringLiteral("-rw-r--r--");
const QString Link = QStringLiteral("lrwxrwxrwx");

// Every file and link of the package; directories aside.
const QList<Entry> Expected = {
    {"relay in its bin/", "/usr/lib/korbrdv/bin/KorbRdv_streamer", Executable, {}},
    {"client in the relay's bin/", "/usr/lib/korbrdv/bin/korb_rdv_client", Executable, {}},
    {"simulator in the relay's bin/", "/usr/lib/korbrdv/bin/korb_rdv_sim", Executable, {}},
    {"relay on the PATH", "/usr/bin/KorbRdv_streamer", Link, "../lib/korbrdv/bin/KorbRdv_streamer"},
    {"client on the PATH", "/usr/bin/korb_rdv_client", Link, "../lib/korbrdv/bin/korb_rdv_client"},
    {"simulator on the PATH", "/usr/bin/korb_rdv_sim", Link, "../lib/korbrdv/bin/korb_rdv_sim"},
    {"../logs beside bin/", "/usr/lib/korbrdv/logs", Link, "/var/log/korbrdv"},
    {"../etc beside bin/", "/usr/lib/korbrdv/etc", Link, "/etc/korbrdv"},
    {"../tmp beside bin/", "/usr/lib/korbrdv/tmp", Link, "/var/lib/korbrdv/tmp"},
    {"configuration", "/etc/korbrdv/KorbRdv_streamer.ini", Plain, {}},
    {"viewer page", "/usr/share/korbrdv/viewer/index.html", Plain, {}},
    {"viewer script", "/usr/share/korbrdv/viewer/viewer.js", Plain, {}},
    {"viewer style", "/usr/share/korbrdv/viewer/viewer.css", Plain, {}},
    {"viewer decoder", "/usr/share/korbrdv/viewer/rdv_decoder.js", Plain, {}},
    {"demo recording", "/usr/share/korbrdv/demo.rdv", Plain, {}},
    {"copyright", "/usr/share/doc/korbrdv/copyright", Plain, {}},
    {"change log", "/usr/share/doc/korbrdv/changelog.gz", Plain, {}},
    {"read-me", "/usr/share/doc/korbrdv/README.md", Plain, {}},
};

struct Listed
{
    QString mode;
    QString linkTarget;
};

SvcRun runTool(const QString &program, const QStringList &arguments, int timeoutMs = 30000)
{
    return svcRun(program, arguments, QProcessEnvironment::systemEnvironment(), timeoutMs);
}

QString text(const SvcRun &run)
{
    return QString::fromUtf8(run.out + run.err);
}

} // namespace

class tst_KorbPackage : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void contents_data();
    void contents();
    void nothingElseShipped();
    void control();
    void dependencies_data();
    void dependencies();
    void lintianFindsNoError();
    void installRunPurge();

private:
    QString m_package;
    QMap<QString, Listed> m_listed;
};

void tst_KorbPackage::initTestCase()
{
    if (KORB_SANITIZED)
        QSKIP("the package is made from the plain build, not from this sanitizer build");
    for (const char *tool : {"dpkg-deb", "dpkg-shlibdeps"})
        if (QStandardPaths::findExecutable(QString::fromLatin1(tool)).isEmpty())
            QSKIP(qPrintable(QStringLiteral("%1 is missing (package dpkg-dev; make deps installs it)")
                                 .arg(QString::fromLatin1(tool))));

    QDir(PackageDir).removeRecursively();
    const SvcRun cpack = runTool(QStringLiteral(KORB_CPACK_COMMAND),
                                 {"-G", "DEB", "--config", KORB_CPACK_CONFIG, "-B", PackageDir, "-D",
                                  "CPACK_OUTPUT_FILE_PREFIX=" + PackageDir},
                                 CpackWaitMs);
    QVERIFY2(cpack.exitCode == 0, qPrintable(text(cpack)));
    const QString arch = QString::fromUtf8(runTool("dpkg", {"--print-architecture"}).out.trimmed());
    m_package = PackageDir + QStringLiteral("/korbrdv_%1_%2.deb").arg(KORB_PACKAGE_VERSION, arch);
    QVERIFY2(QFileInfo::exists(m_package), qPrintable(m_package));

    // "lrwxrwxrwx root/root 0 2024-01-01 00:00 ./usr/bin/x -> ../lib/x"
    static const QRegularExpression line(
        QStringLiteral("^(\\S+)\\s+\\S+\\s+\\d+\\s+\\S+\\s+\\S+\\s+\\.(/\\S*?)/?(?: -> (\\S+))?$"));
    const SvcRun list = runTool("dpkg-deb", {"--contents", m_package});
    QCOMPARE(list.exitCode, 0);
    for (const QString &row : QString::fromUtf8(list.out).split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
        const QRegularExpressionMatch m = line.match(row);
        QVERIFY2(m.hasMatch(), qPrintable(row));
        m_listed.insert(m.captured(2), {m.captured(1), m.captured(3)});
    }
}

void tst_KorbPackage::contents_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("mode");
    QTest::addColumn<QString>("linkTarget");
    for (const Entry &e : Expected)
        QTest::newRow(e.what) << e.path << e.mode << e.linkTarget;
}

void tst_KorbPackage::contents()
{
    QFETCH(QString, path);
    QFETCH(QString, mode);
    QFETCH(QString, linkTarget);
    QVERIFY2(m_listed.contains(path), qPrintable(path));
    QCOMPARE(m_listed.value(path).mode, mode);
    QCOMPARE(m_listed.value(path).linkTarget, linkTarget);
}

// The viewer's node_modules and tests, build files and the like stay out.
void tst_KorbPackage::nothingElseShipped()
{
    QStringList expected, shipped;
    for (const Entry &e : Expected)
        expected << e.path;
    for (auto it = m_listed.cbegin(); it != m_listed.cend(); ++it)
        if (!it.value().mode.startsWith(QLatin1Char('d')))
            shipped << it.key();
    expected.sort();
    QCOMPARE(shipped, expected);
}

void tst_KorbPackage::control()
{
    const auto field = [this](const char *name) {
        return QString::fromUtf8(runTool("dpkg-deb", {"--field", m_package, name}).out.trimmed());
    };
    QCOMPARE(field("Package"), QStringLiteral("korbrdv"));
    QCOMPARE(field("Version"), QStringLiteral(KORB_PACKAGE_VERSION));
    QCOMPARE(runTool("dpkg-deb", {"--info", m_package, "conffiles"}).out,
             QByteArray("/etc/korbrdv/KorbRdv_streamer.ini\n"));
}

void tst_KorbPackage::dependencies_data()
{
    QTest::addColumn<QString>("library");
    for (const char *package :
         {"libc6", "libstdc++6", "libqt5core5a", "libqt5network5", "libqt5websockets5", "libmosquitto1"})
        QTest::newRow(package) << QString::fromLatin1(package);
}

// Read from the binaries, so each comes with the least version they need.
void tst_KorbPackage::dependencies()
{
    QFETCH(QString, library);
    const QString depends = QString::fromUtf8(runTool("dpkg-deb", {"--field", m_package, "Depends"}).out);
    const QRegularExpression versioned(
        QStringLiteral("(^|, )%1 \\(>= [^)]+\\)").arg(QRegularExpression::escape(library)));
    QVERIFY2(versioned.match(depends).hasMatch(), qPrintable(depends));
}

void tst_KorbPackage::lintianFindsNoError()
{
    const QString lintian = QStandardPaths::findExecutable(QStringLiteral("lintian"));
    if (lintian.isEmpty())
        QSKIP("lintian is not installed (make deps installs it where it can)");
    const SvcRun run = runTool(lintian, {m_package}, LintianWaitMs);
    qInfo().noquote() << "lintian:" << text(run).trimmed();
    QVERIFY2(run.exitCode == 0, qPrintable(text(run)));
    QVERIFY2(!QRegularExpression(QStringLiteral("(^|\\n)E: ")).match(text(run)).hasMatch(),
             qPrintable(text(run)));
}

void tst_KorbPackage::installRunPurge()
{
    const QString unavailable = SvcContainer::unavailableReason();
    if (!unavailable.isEmpty())
        QSKIP(qPrintable(unavailable));
    SvcContainer container(QStringLiteral("kpkg"), PackageDir, PackageInContainer);
    const QString failedBoot = container.boot();
    if (!failedBoot.isEmpty())
        QSKIP(qPrintable(failedBoot));

    const SvcRun install = container.exec(
        {"dpkg", "-i", PackageInContainer + QLatin1Char('/') + QFileInfo(m_package).fileName()});
    QVERIFY2(install.exitCode == 0, qPrintable(text(install)));
    // Installing starts nothing.
    QCOMPARE(container.exec({"pgrep", "-f", "^/usr/lib/korbrdv/bin/"}).exitCode, 1);

    // Through the link on the PATH, the installer still names the real program.
    const QString relay = QStringLiteral("/usr/lib/korbrdv/bin/KorbRdv_streamer");
    const QString args = QStringLiteral("-p 3011 -file=/usr/share/korbrdv/demo.rdv -addr=127.0.0.1:3999");
    const SvcRun unit = container.exec({"KorbRdv_streamer", "-i", "-n", "KorbRdv.pkg", "-a", args});
    QCOMPARE(unit.exitCode, 0);
    QVERIFY2(unit.out.endsWith(QStringLiteral("installed under:\n %1 %2\n").arg(relay, args).toUtf8()),
             unit.out.constData());
    const QByteArray unitFile = container.exec({"cat", "/usr/lib/systemd/system/KorbRdv.pkg.service"}).out;
    QVERIFY2(unitFile.contains("\nWorkingDirectory=/usr/lib/korbrdv\n"), unitFile.constData());
    QVERIFY2(
        unitFile.contains(QStringLiteral("\nExecStart=%1 -n KorbRdv.pkg %2\n").arg(relay, args).toUtf8()),
        unitFile.constData());

    QCOMPARE(container.exec({"systemctl", "start", "KorbRdv.pkg"}).exitCode, 0);
    // The query through the link finds the instance the registry holds under the real path.
    const QRegularExpression running(QStringLiteral("^KorbRdv\\.pkg\t1\t.*\t'%1'\n$")
                                         .arg(QRegularExpression::escape(relay + QLatin1Char(' ') + args)));
    QTRY_VERIFY_WITH_TIMEOUT(
        running.match(QString::fromUtf8(container.exec({"KorbRdv_streamer", "-q"}).out)).hasMatch(), 20000);
    SvcRun client;
    QTRY_VERIFY_WITH_TIMEOUT((client = container.exec({"korb_rdv_client", "ws://127.0.0.1:3011", "--count",
                                                       "5", "--timeout", "10"}))
                                     .exitCode == 0,
                             30000);
    QVERIFY2(client.out.contains("\n5 packets, 0 malformed"), client.out.constData());

    // Run through the link in /usr/bin, the relay still finds ../tmp and
    // ../logs beside its real bin/, and the links there lead to /var.
    QCOMPARE(container
                 .exec({"systemd-run", "--collect", "--unit=korbrdv-link", "KorbRdv_streamer", "-e", "-p",
                        "3012", "-addr=127.0.0.1:3999"})
                 .exitCode,
             0);
    QTRY_COMPARE_WITH_TIMEOUT(
        container.exec({"test", "-s", "/var/lib/korbrdv/tmp/KorbRdv_streamer-3012.pid"}).exitCode, 0, 20000);
    QTRY_VERIFY_WITH_TIMEOUT(container.exec({"ls", "/var/log/korbrdv"}).out.startsWith("rdv_"), 20000);
    QCOMPARE(container.exec({"systemctl", "stop", "korbrdv-link"}).exitCode, 0);

    const SvcRun uninstall = container.exec({"KorbRdv_streamer", "-u", "-n", "KorbRdv.pkg"});
    QVERIFY2(uninstall.out.endsWith("The service KorbRdv.pkg has been uninstalled.\n"),
             uninstall.out.constData());

    // Purging refuses nothing and names the instance left installed.
    QCOMPARE(container.exec({"KorbRdv_streamer", "-i", "-n", "KorbRdv.left"}).exitCode, 0);
    const QStringList owned = QString::fromUtf8(container.exec({"dpkg", "-L", "korbrdv"}).out)
                                  .split(QLatin1Char('\n'))
                                  .filter(QStringLiteral("korb"), Qt::CaseInsensitive);
    QVERIFY(owned.contains(relay));
    const SvcRun purge = container.exec({"dpkg", "--purge", "korbrdv"});
    QVERIFY2(purge.exitCode == 0, qPrintable(text(purge)));
    QVERIFY2(purge.out.contains("\n    KorbRdv_streamer -u -n KorbRdv.left\n"), purge.out.constData());
    QVERIFY2(!purge.out.contains("-u -n KorbRdv.pkg"), purge.out.constData());

    // Nothing of the package stays but the logs.
    const SvcRun left = container.exec(
        QStringList{"sh", "-c", "for f; do [ -e \"$f\" ] || [ -L \"$f\" ] && echo \"$f\"; done; true", "sh"} +
        owned + QStringList{"/var/lib/korbrdv"});
    QCOMPARE(left.out, QByteArray());
    QCOMPARE(container.exec({"find", "/var/log/korbrdv", "-mindepth", "1", "!", "-name", "rdv_*.txt"}).out,
             QByteArray());
}

QTEST_GUILESS_MAIN(tst_KorbPackage)
#include "tst_korb_package.moc"
