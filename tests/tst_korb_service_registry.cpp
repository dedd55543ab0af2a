// The registry of installed instances and the commands that read or write
// it (install, uninstall, query, start), run with the real executable in a
// private mount namespace whose /etc is a throwaway overlay. This machine has
// no systemd, so install writes the registry alone.
#include "support/svc_sandbox.h"
#include "support/svc_service_process.h"

#include <QDir>
#include <QFileInfo>
#include <QSettings>
#include <QtTest>

namespace {

struct Entry
{
    QString name;
    QString path;
    QString args;
};

QByteArray registryText(const QList<Entry> &entries)
{
    QByteArray text = "[services]\n";
    for (const Entry &e : entries) {
        text += e.name.toUtf8() + "\\path=" + e.path.toUtf8() + "\n";
        text += e.name.toUtf8() + "\\args=" + e.args.toUtf8() + "\n";
        text += e.name.toUtf8() + "\\description=" + e.name.toUtf8() + " test service\n";
        text += e.name.toUtf8() + "\\automaticStartup=true\n";
    }
    return text;
}

// The listing as the operator must see it: no title, names padded to the
// longest (at least 11), and the unknown status without systemd.
QByteArray expectedListing(QList<Entry> entries)
{
    std::sort(entries.begin(), entries.end(), [](const Entry &a, const Entry &b) { return a.name < b.name; });
    int width = 11;
    for (const Entry &e : entries)
        width = qMax(width, e.name.size());
    QByteArray text;
    for (const Entry &e : entries) {
        const QString command = e.args.isEmpty() ? e.path : e.path + QLatin1Char(' ') + e.args;
        text += e.name.toUtf8() + QByteArray(width - e.name.size(), ' ') + "\t0\tUNKNOWN          \t'" +
                command.toUtf8() + "'\n";
    }
    return text;
}

QStringList registryGroups(const SvcSandbox &sandbox)
{
    QSettings settings(sandbox.registryPath(), QSettings::IniFormat);
    settings.beginGroup(QStringLiteral("services"));
    return settings.childGroups();
}

} // namespace

class tst_KorbServiceRegistry : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void install_data();
    void install();
    void installTwice();
    void installFailsWhenRegistryCannotBeWritten();
    void uninstall();
    void uninstallNotInstalled();
    void uninstallFailsWhenRegistryCannotBeWritten();
    void uninstallAll();
    void uninstallAllWithoutInstances();
    void query_data();
    void query();
    void walkAllDoesNothing_data();
    void walkAllDoesNothing();
    void startNotInstalled_data();
    void startNotInstalled();
    void startAndStopInstalled();

private:
    QString m_program;
};

void tst_KorbServiceRegistry::initTestCase()
{
    const QString reason = SvcSandbox::unavailableReason();
    if (!reason.isEmpty())
        QSKIP(qPrintable(reason));
    m_program = QFileInfo(SvcTest::testServiceProgram()).canonicalFilePath();
}

void tst_KorbServiceRegistry::install_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("args");

    QTest::newRow("-i -n NAME -a args")
        << QStringList{"-i", "-n", "%N", "-a", "-p 9080 -ps 9081"} << "-p 9080 -ps 9081";
    QTest::newRow("-n NAME -i") << QStringList{"-n", "%N", "-i"} << "";
    QTest::newRow("-I upper case") << QStringList{"-I", "-n", "%N"} << "";
    QTest::newRow("-install with account and password")
        << QStringList{"-install", "user", "secret", "-n", "%N", "-a", "-x"} << "-x";
}

void tst_KorbServiceRegistry::install()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, args);
    const QString name = SvcTest::uniqueName(QStringLiteral("svcinst"));
    arguments.replaceInStrings(QStringLiteral("%N"), name);
    SvcSandbox sandbox;
    const SvcRun run = sandbox.run(m_program, arguments);
    QVERIFY(run.finished);
    QCOMPARE(run.err, QByteArray());
    QCOMPARE(run.exitCode, 0);
    QCOMPARE(run.out, QStringLiteral("The service %1 has been installed under:\n %2 %3\n")
                          .arg(name, m_program, args)
                          .toUtf8());

    QSettings settings(sandbox.registryPath(), QSettings::IniFormat);
    settings.beginGroup(QStringLiteral("services"));
    QCOMPARE(settings.childGroups(), QStringList{name});
    settings.beginGroup(name);
    QCOMPARE(settings.allKeys().size(), 4);
    QCOMPARE(settings.value("path").toString(), m_program);
    QCOMPARE(settings.value("args").toString(), args);
    QCOMPARE(settings.value("description").toString(), name + QStringLiteral(" test service"));
    QCOMPARE(settings.value("automaticStartup").toBool(), true);
    QVERIFY(!settings.contains("startupType"));

    // Without systemd only the registry is written.
    QCOMPARE(QDir(sandbox.unitDir()).entryList(QDir::NoDotAndDotDot | QDir::AllEntries), QStringList());
    QCOMPARE(QDir(sandbox.etcDir()).entryList(QDir::NoDotAndDotDot | QDir::AllEntries),
             QStringList{"KorbService.conf"});
}

void tst_KorbServiceRegistry::installTwice()
{
    const QString name = SvcTest::uniqueName(QStringLiteral("svctwice"));
    SvcSandbox sandbox;
    sandbox.writeRegistry(
        registryText({{name, QStringLiteral("/opt/first/bin/prog"), QStringLiteral("-a")}}));
    const SvcRun run = sandbox.run(m_program, {"-i", "-n", name});
    QCOMPARE(run.exitCode, 0);
    QCOMPARE(run.out, QByteArray());
    QCOMPARE(run.err, QStringLiteral("The service %1 is already installed\n").arg(name).toUtf8());
    QVERIFY(sandbox.readRegistry().contains("/opt/first/bin/prog"));
}

void tst_KorbServiceRegistry::installFailsWhenRegistryCannotBeWritten()
{
    const QString name = SvcTest::uniqueName(QStringLiteral("svcnowrite"));
    SvcSandbox sandbox;
    // A directory where the file should be: it reads as empty and cannot be written.
    QVERIFY(QDir().mkpath(sandbox.registryPath()));
    const SvcRun run = sandbox.run(m_program, {"-i", "-n", name});
    QVERIFY(run.finished);
    QCOMPARE(run.exitCode, -1);
    QCOMPARE(run.out, QByteArray());
    const QByteArray prefix =
        QStringLiteral("Cannot install \"%1\". Cannot write to: /etc/KorbService.conf. Check "
                       "permissions.\nThe service %1 could not be installed: ")
            .arg(name)
            .toUtf8();
    QVERIFY2(run.err.startsWith(prefix) && run.err.endsWith("\n") && run.err.count('\n') == 2,
             run.err.constData());
}

void tst_KorbServiceRegistry::uninstall()
{
    const QString name = SvcTest::uniqueName(QStringLiteral("svcuninst"));
    const QString other = SvcTest::uniqueName(QStringLiteral("svckeep"));
    SvcSandbox sandbox;
    sandbox.writeRegistry(registryText({{name, m_program, ""}, {other, m_program, "-x"}}));
    // Leftovers of a systemd installation are removed too.
    QFile unit(sandbox.unitDir() + QLatin1Char('/') + name + QStringLiteral(".service"));
    QVERIFY(unit.open(QIODevice::WriteOnly));
    unit.close();

    const SvcRun run = sandbox.run(m_program, {"-u", "-n", name});
    QVERIFY(run.finished);
    QCOMPARE(run.exitCode, 0);
    QVERIFY2(run.out.startsWith(QStringLiteral("Удаление службы %1 из systemd\n").arg(name).toUtf8()),
             run.out.constData());
    QVERIFY2(run.out.endsWith(QStringLiteral("The service %1 has been uninstalled.\n").arg(name).toUtf8()),
             run.out.constData());
    // The systemctl runs are reported, each with its three lines.
    for (const QString &verb : {QStringLiteral("stop"), QStringLiteral("disable")}) {
        const QByteArray line = QStringLiteral("systemctl %1 %2.service").arg(verb, name).toUtf8();
        QVERIFY2(run.out.contains("Run: " + line + " ["), run.out.constData());
        QVERIFY(run.out.contains("Std: " + line + "\n"));
        QVERIFY(run.out.contains("Err: " + line + "\n"));
    }
    QVERIFY(run.out.contains("Run: systemctl daemon-reload ["));
    QCOMPARE(registryGroups(sandbox), QStringList{other});
    QVERIFY(!unit.exists());
}

void tst_KorbServiceRegistry::uninstallNotInstalled()
{
    const QString name = SvcTest::uniqueName(QStringLiteral("svcnone"));
    SvcSandbox sandbox;
    for (const QStringList &arguments : {QStringList{"-u", "-n", name}, QStringList{"-n", name, "-U"}}) {
        const SvcRun run = sandbox.run(m_program, arguments);
        QCOMPARE(run.exitCode, 0);
        QCOMPARE(run.out, QByteArray());
        QCOMPARE(run.err, QStringLiteral("The service %1 is not installed\n").arg(name).toUtf8());
    }
}

void tst_KorbServiceRegistry::uninstallFailsWhenRegistryCannotBeWritten()
{
    const QString name = SvcTest::uniqueName(QStringLiteral("svcro"));
    SvcSandbox sandbox;
    sandbox.writeRegistry(registryText({{name, m_program, ""}}));
    const QString readOnly = QStringLiteral("mount --bind /etc/KorbService.conf /etc/KorbService.conf\n"
                                            "mount -o remount,ro,bind /etc/KorbService.conf");
    const SvcRun run =
        sandbox.run(m_program, {"-u", "-n", name}, QProcessEnvironment::systemEnvironment(), readOnly);
    QVERIFY(run.finished);
    QCOMPARE(run.exitCode, -1);
    QCOMPARE(run.err, QStringLiteral("Cannot uninstall \"%1\". Cannot write to: /etc/KorbService.conf. Check "
                                     "permissions.\nThe service %1 could not be uninstalled\n")
                          .arg(name)
                          .toUtf8());
    QCOMPARE(registryGroups(sandbox), QStringList{name});
}

void tst_KorbServiceRegistry::uninstallAll()
{
    const QString mine = SvcTest::uniqueName(QStringLiteral("svcalla"));
    const QString foreign = SvcTest::uniqueName(QStringLiteral("svcallb"));
    SvcSandbox sandbox;
    // Instances of other programs go too.
    sandbox.writeRegistry(registryText({{mine, m_program, ""}, {foreign, "/opt/other/bin/prog", "-y"}}));
    const SvcRun run = sandbox.run(m_program, {"-u", "-all"});
    QVERIFY(run.finished);
    QCOMPARE(run.exitCode, 0);
    QVERIFY(run.out.contains(QStringLiteral("The service %1 has been uninstalled.\n").arg(mine).toUtf8()));
    QVERIFY(run.out.contains(QStringLiteral("The service %1 has been uninstalled.\n").arg(foreign).toUtf8()));
    QCOMPARE(registryGroups(sandbox), QStringList());
}

void tst_KorbServiceRegistry::uninstallAllWithoutInstances()
{
    SvcSandbox sandbox;
    const SvcRun run = sandbox.run(m_program, {"-u", "-all"});
    QCOMPARE(run.exitCode, 0);
    QCOMPARE(run.out, QByteArray());
    QCOMPARE(run.err, QByteArray());
}

void tst_KorbServiceRegistry::query_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<bool>("all");
    QTest::addColumn<bool>("longName");

    QTest::newRow("-q") << QStringList{"-q"} << false << false;
    QTest::newRow("-Q has no title either") << QStringList{"-Q"} << false << false;
    QTest::newRow("-qa lists every program") << QStringList{"-qa"} << true << false;
    QTest::newRow("-Qa lists only this program") << QStringList{"-Qa"} << false << false;
    QTest::newRow("-QA lists only this program") << QStringList{"-QA"} << false << false;
    QTest::newRow("-query") << QStringList{"-query"} << false << false;
    QTest::newRow("-q after a stop command") << QStringList{"-t", "-n", "x", "-q"} << false << false;
    QTest::newRow("long name widens the column") << QStringList{"-q"} << false << true;
    QTest::newRow("long name, -qa") << QStringList{"-qa"} << true << true;
}

void tst_KorbServiceRegistry::query()
{
    QFETCH(QStringList, arguments);
    QFETCH(bool, all);
    QFETCH(bool, longName);

    const QList<Entry> mine = {
        {QStringLiteral("b.svc"), m_program, QStringLiteral("-p 1 -ps 2")},
        {longName ? QStringLiteral("a-rather-long-instance-name") : QStringLiteral("a.svc"), m_program,
         QString()},
    };
    const QList<Entry> foreign = {
        {QStringLiteral("c.svc"), QStringLiteral("/opt/other/bin/prog"), QStringLiteral("-y")}};
    SvcSandbox sandbox;
    sandbox.writeRegistry(registryText(mine + foreign));
    const SvcRun run = sandbox.run(m_program, arguments);
    QVERIFY(run.finished);
    QCOMPARE(run.exitCode, 0);
    QCOMPARE(run.err, QByteArray());
    QCOMPARE(run.out, expectedListing(all ? mine + foreign : mine));
}

void tst_KorbServiceRegistry::walkAllDoesNothing_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::newRow("-n NAME -all") << QStringList{"-n", "%N", "-all"};
    QTest::newRow("-t -all") << QStringList{"-t", "-all"};
    QTest::newRow("-t -n NAME -all") << QStringList{"-t", "-n", "%N", "-all"};
}

void tst_KorbServiceRegistry::walkAllDoesNothing()
{
    QFETCH(QStringList, arguments);
    const QString name = SvcTest::uniqueName(QStringLiteral("svcwalk"));
    arguments.replaceInStrings(QStringLiteral("%N"), name);
    SvcSandbox sandbox;
    sandbox.writeRegistry(registryText({{name, m_program, ""}}));
    const SvcRun run = sandbox.run(m_program, arguments);
    QCOMPARE(run.exitCode, 0);
    QCOMPARE(run.out, QByteArray());
    QCOMPARE(run.err, QByteArray());
    QVERIFY(!QFileInfo::exists(SvcTest::socketPathFor(name)));
    QCOMPARE(registryGroups(sandbox), QStringList{name});
}

void tst_KorbServiceRegistry::startNotInstalled_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::newRow("-s -n NAME") << QStringList{"-s", "-n", "%N"};
    QTest::newRow("-n NAME") << QStringList{"-n", "%N"};
    QTest::newRow("-n NAME -S") << QStringList{"-n", "%N", "-S"};
    // The value after -n is the name, even when it looks like an option.
    QTest::newRow("-n -all names -all") << QStringList{"-n", "-all"};
}

void tst_KorbServiceRegistry::startNotInstalled()
{
    QFETCH(QStringList, arguments);
    const QString name = SvcTest::uniqueName(QStringLiteral("svcnost"));
    arguments.replaceInStrings(QStringLiteral("%N"), name);
    SvcSandbox sandbox;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.remove(QStringLiteral("KORBSERVICE_RUN"));
    const SvcRun run = sandbox.run(m_program, arguments, environment);
    QCOMPARE(run.exitCode, -1);
    QCOMPARE(run.out, QByteArray());
    QCOMPARE(run.err, QStringLiteral("The service %1 is not installed\n")
                          .arg(arguments.contains(name) ? name : QStringLiteral("-all"))
                          .toUtf8());
}

void tst_KorbServiceRegistry::startAndStopInstalled()
{
    const QString name = SvcTest::uniqueName(QStringLiteral("svcstart"));
    SvcSandbox sandbox;
    QTemporaryDir dir;
    const QString log = dir.path() + QStringLiteral("/log");
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.remove(QStringLiteral("KORBSERVICE_RUN"));
    environment.insert(QStringLiteral("KORB_TEST_SERVICE_LOG"), log);
    const QString socket = SvcTest::socketPathFor(name);
    struct Cleanup
    {
        QString log, socket;
        ~Cleanup()
        {
            SvcTest::killPid(SvcTest::startedPid(log));
            QFile::remove(socket);
        }
    } cleanup{log, socket};

    QCOMPARE(sandbox.run(m_program, {"-i", "-n", name, "-a", "-lt 3"}, environment).exitCode, 0);

    // Without systemd the registered program is started as the service.
    const SvcRun start = sandbox.run(m_program, {"-s", "-n", name}, environment);
    QVERIFY(start.finished);
    QCOMPARE(start.exitCode, 0);
    QCOMPARE(start.err, QByteArray());
    QTRY_VERIFY_WITH_TIMEOUT(SvcTest::startedPid(log) > 0 && QFileInfo::exists(socket), 10000);
    QVERIFY(SvcTest::readLog(log).contains(
        QStringLiteral("start pid=%1 run=1 args=-n|%2|-lt|3").arg(SvcTest::startedPid(log)).arg(name)));

    // Running already: both forms of start refuse.
    for (const QStringList &arguments : {QStringList{"-s", "-n", name}, QStringList{"-n", name}}) {
        const SvcRun again = sandbox.run(m_program, arguments, environment);
        QCOMPARE(again.exitCode, -4);
        QCOMPARE(again.err, QStringLiteral("The service %1 is already Running\n").arg(name).toUtf8());
    }

    const SvcRun query = sandbox.run(m_program, {"-q"}, environment);
    QCOMPARE(query.out, expectedListing({{name, m_program, QStringLiteral("-lt 3")}}));

    const SvcRun stop = sandbox.run(m_program, {"-t", "-n", name}, environment);
    QCOMPARE(stop.exitCode, 0);
    QTRY_VERIFY_WITH_TIMEOUT(!QFileInfo::exists(socket), 10000);
    QTRY_COMPARE(SvcTest::readLog(log).count(QStringLiteral("stop")), 1);
}

QTEST_GUILESS_MAIN(tst_KorbServiceRegistry)
#include "tst_korb_service_registry.moc"
