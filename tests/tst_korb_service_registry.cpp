// The registry of installed instances and the commands that read or write it
// (install, uninstall, query, start), run with the real executable in a
// private mount namespace whose /etc is a throwaway overlay. Without systemd
// here, install writes the registry alone.
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

// One instance's registry keys as "name/key=value" lines, in key order.
QStringList entryLines(const Entry &e)
{
    return {e.name + "/args=" + e.args, e.name + "/automaticStartup=true",
            e.name + "/description=" + e.name + " test service", e.name + "/path=" + e.path};
}

QByteArray registryText(const QList<Entry> &entries)
{
    QByteArray text = "[services]\n";
    for (const Entry &e : entries) {
        for (QString line : entryLines(e))
            text += line.replace(line.indexOf(QLatin1Char('/')), 1, QLatin1Char('\\')).toUtf8() + "\n";
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

// What the sandbox's registry holds, as entryLines() gives it.
QStringList registryLines(const SvcSandbox &sandbox)
{
    QSettings settings(sandbox.registryPath(), QSettings::IniFormat);
    settings.beginGroup(QStringLiteral("services"));
    QStringList lines;
    for (const QString &key : settings.allKeys())
        lines << key + QLatin1Char('=') + settings.value(key).toString();
    return lines;
}

QByteArray text(const char *format, const QString &name)
{
    return QString::fromUtf8(format).arg(name).toUtf8();
}

} // namespace

class tst_KorbServiceRegistry : public QObject
{
    Q_OBJECT

private:
    QString m_program;

private slots:
    void initTestCase()
    {
        const QString reason = SvcSandbox::unavailableReason();
        if (!reason.isEmpty())
            QSKIP(qPrintable(reason));
        m_program = QFileInfo(SvcTest::testServiceProgram()).canonicalFilePath();
    }

    void install_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QString>("args");
        QTest::newRow("-i -n NAME -a args")
            << QStringList{"-i", "-n", "%N", "-a", "-p 9080 -ps 9081"} << "-p 9080 -ps 9081";
        QTest::newRow("-n NAME -I") << QStringList{"-n", "%N", "-I"} << "";
        QTest::newRow("-install with account and password")
            << QStringList{"-install", "user", "secret", "-n", "%N", "-a", "-x"} << "-x";
    }

    void install()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QString, args);
        const QString name = SvcTest::uniqueName(QStringLiteral("svcinst"));
        SvcSandbox sandbox;
        const SvcRun run = sandbox.run(m_program, arguments.replaceInStrings(QStringLiteral("%N"), name));
        QCOMPARE(run.err, QByteArray());
        QCOMPARE(run.exitCode, 0);
        QCOMPARE(run.out, QStringLiteral("The service %1 has been installed under:\n %2 %3\n")
                              .arg(name, m_program, args)
                              .toUtf8());

        QCOMPARE(registryLines(sandbox), entryLines({name, m_program, args}));
        // Without systemd only the registry is written.
        QCOMPARE(QDir(sandbox.unitDir()).entryList(QDir::NoDotAndDotDot | QDir::AllEntries), QStringList());
        QCOMPARE(QDir(sandbox.etcDir()).entryList(QDir::NoDotAndDotDot | QDir::AllEntries),
                 QStringList{"KorbService.conf"});
    }

    // Commands that change nothing: no output, the registry as it was, no
    // service started. %N is the instance name, registered beforehand or not.
    void refusalsAndWalks_data()
    {
        QTest::addColumn<bool>("registered");
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QString>("err");
        QTest::newRow("install twice")
            << true << QStringList{"-i", "-n", "%N"} << 0 << "The service %N is already installed\n";
        QTest::newRow("-n NAME -U not installed")
            << false << QStringList{"-n", "%N", "-U"} << 0 << "The service %N is not installed\n";
        QTest::newRow("-n NAME -S not installed")
            << false << QStringList{"-n", "%N", "-S"} << -1 << "The service %N is not installed\n";
        // The value after -n is the name, even when it looks like an option.
        QTest::newRow("-n -all names -all")
            << false << QStringList{"-n", "-all"} << -1 << "The service -all is not installed\n";
        QTest::newRow("-n NAME -all starts nothing") << true << QStringList{"-n", "%N", "-all"} << 0 << "";
        QTest::newRow("-t -all stops nothing") << true << QStringList{"-t", "-all"} << 0 << "";
        QTest::newRow("-u -all without instances") << false << QStringList{"-u", "-all"} << 0 << "";
    }

    void refusalsAndWalks()
    {
        QFETCH(bool, registered);
        QFETCH(QStringList, arguments);
        QFETCH(int, exitCode);
        QFETCH(QString, err);
        const Entry entry{SvcTest::uniqueName(QStringLiteral("svcref")), "/opt/first/bin/prog", "-a"};
        SvcSandbox sandbox;
        if (registered)
            sandbox.writeRegistry(registryText({entry}));
        const SvcRun run =
            sandbox.run(m_program, arguments.replaceInStrings(QStringLiteral("%N"), entry.name),
                        SvcTest::managementEnvironment());
        QCOMPARE(run.exitCode, exitCode);
        QCOMPARE(run.out, QByteArray());
        QCOMPARE(run.err, err.replace(QStringLiteral("%N"), entry.name).toUtf8());
        QCOMPARE(registryLines(sandbox), registered ? entryLines(entry) : QStringList());
        QVERIFY(!QFileInfo::exists(SvcTest::socketPathFor(entry.name)));
    }

    void installFailsWhenRegistryCannotBeWritten()
    {
        const QString name = SvcTest::uniqueName(QStringLiteral("svcnowrite"));
        SvcSandbox sandbox;
        // A directory where the file should be: it reads as empty and cannot be written.
        const SvcRun run =
            sandbox.run(m_program, {"-i", "-n", name}, QProcessEnvironment::systemEnvironment(),
                        "mkdir /etc/KorbService.conf");
        QCOMPARE(run.exitCode, -1);
        QCOMPARE(run.out, QByteArray());
        // The second line ends with the system's error text.
        QVERIFY2(
            run.err.startsWith(text("Cannot install \"%1\". Cannot write to: /etc/KorbService.conf. Check "
                                    "permissions.\nThe service %1 could not be installed: ",
                                    name)) &&
                run.err.endsWith("\n") && run.err.count('\n') == 2,
            run.err.constData());
    }

    void uninstallFailsWhenRegistryCannotBeWritten()
    {
        const Entry entry{SvcTest::uniqueName(QStringLiteral("svcro")), m_program, ""};
        SvcSandbox sandbox;
        sandbox.writeRegistry(registryText({entry}));
        const SvcRun run =
            sandbox.run(m_program, {"-u", "-n", entry.name}, QProcessEnvironment::systemEnvironment(),
                        "mount --bind /etc/KorbService.conf /etc/KorbService.conf\n"
                        "mount -o remount,ro,bind /etc/KorbService.conf");
        QCOMPARE(run.exitCode, -1);
        QCOMPARE(run.err, text("Cannot uninstall \"%1\". Cannot write to: /etc/KorbService.conf. Check "
                               "permissions.\nThe service %1 could not be uninstalled\n",
                               entry.name));
        QCOMPARE(registryLines(sandbox), entryLines(entry));
    }

    void uninstall()
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
        QCOMPARE(run.exitCode, 0);
        QVERIFY2(run.out.startsWith(text("Удаление службы %1 из systemd\n", name)), run.out.constData());
        QVERIFY(run.out.endsWith(text("The service %1 has been uninstalled.\n", name)));
        // Each systemctl run is reported with its three lines.
        for (const QString &verb : {QStringLiteral("stop"), QStringLiteral("disable")}) {
            const QByteArray line = QStringLiteral("systemctl %1 %2.service").arg(verb, name).toUtf8();
            QVERIFY2(run.out.contains("Run: " + line + " ["), run.out.constData());
            QVERIFY(run.out.contains("Std: " + line + "\n"));
            QVERIFY(run.out.contains("Err: " + line + "\n"));
        }
        QVERIFY(run.out.contains("Run: systemctl daemon-reload ["));
        QCOMPARE(registryLines(sandbox), entryLines({other, m_program, "-x"}));
        QVERIFY(!unit.exists());
    }

    void uninstallAll()
    {
        SvcSandbox sandbox;
        // Instances of other programs go too.
        const QString mine = SvcTest::uniqueName(QStringLiteral("svcalla"));
        const QString foreign = SvcTest::uniqueName(QStringLiteral("svcallb"));
        sandbox.writeRegistry(registryText({{mine, m_program, ""}, {foreign, "/opt/other/bin/prog", "-y"}}));
        const SvcRun run = sandbox.run(m_program, {"-u", "-all"});
        QCOMPARE(run.exitCode, 0);
        for (const QString &name : {mine, foreign})
            QVERIFY(run.out.contains(text("The service %1 has been uninstalled.\n", name)));
        QCOMPARE(registryLines(sandbox), QStringList());
    }

    void query_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<bool>("all");
        QTest::addColumn<bool>("longName");
        QTest::newRow("-Q has no title either") << QStringList{"-Q"} << false << false;
        QTest::newRow("-qa lists every program") << QStringList{"-qa"} << true << false;
        QTest::newRow("-Qa lists only this program") << QStringList{"-Qa"} << false << false;
        QTest::newRow("-query after a stop command")
            << QStringList{"-t", "-n", "x", "-query"} << false << false;
        QTest::newRow("long name widens the column") << QStringList{"-q"} << false << true;
    }

    void query()
    {
        QFETCH(QStringList, arguments);
        QFETCH(bool, all);
        QFETCH(bool, longName);
        const QList<Entry> mine = {
            {"b.svc", m_program, "-p 1 -ps 2"},
            {longName ? "a-rather-long-instance-name" : "a.svc", m_program, ""},
        };
        const QList<Entry> foreign = {{"c.svc", "/opt/other/bin/prog", "-y"}};
        SvcSandbox sandbox;
        sandbox.writeRegistry(registryText(mine + foreign));
        const SvcRun run = sandbox.run(m_program, arguments);
        QCOMPARE(run.exitCode, 0);
        QCOMPARE(run.err, QByteArray());
        QCOMPARE(run.out, expectedListing(all ? mine + foreign : mine));
    }

    void startAndStopInstalled()
    {
        const QString name = SvcTest::uniqueName(QStringLiteral("svcstart"));
        SvcSandbox sandbox;
        QTemporaryDir dir;
        const SvcTest::DetachedGuard guard{dir.path() + QStringLiteral("/log"), SvcTest::socketPathFor(name)};
        const QProcessEnvironment environment = SvcTest::managementEnvironment(guard.log);
        QCOMPARE(sandbox.run(m_program, {"-i", "-n", name, "-a", "-lt 3"}, environment).exitCode, 0);

        // Without systemd the registered program is started as the service.
        const SvcRun start = sandbox.run(m_program, {"-s", "-n", name}, environment);
        QCOMPARE(start.exitCode, 0);
        QCOMPARE(start.err, QByteArray());
        QTRY_VERIFY_WITH_TIMEOUT(SvcTest::startedPid(guard.log) > 0 && QFileInfo::exists(guard.socket),
                                 10000);
        QVERIFY(SvcTest::readLog(guard.log).contains(QStringLiteral("start pid=%1 run=1 args=-n|%2|-lt|3")
                                                         .arg(SvcTest::startedPid(guard.log))
                                                         .arg(name)));

        // Running already: both forms of start refuse.
        for (const QStringList &arguments : {QStringList{"-s", "-n", name}, QStringList{"-n", name}}) {
            const SvcRun again = sandbox.run(m_program, arguments, environment);
            QCOMPARE(again.exitCode, -4);
            QCOMPARE(again.err, text("The service %1 is already Running\n", name));
        }
        QCOMPARE(sandbox.run(m_program, {"-q"}, environment).out,
                 expectedListing({{name, m_program, "-lt 3"}}));

        QCOMPARE(sandbox.run(m_program, {"-t", "-n", name}, environment).exitCode, 0);
        QTRY_VERIFY_WITH_TIMEOUT(!QFileInfo::exists(guard.socket), 10000);
        QTRY_COMPARE(SvcTest::readLog(guard.log).count(QStringLiteral("stop")), 1);
    }
};

QTEST_GUILESS_MAIN(tst_KorbServiceRegistry)
#include "tst_korb_service_registry.moc"
