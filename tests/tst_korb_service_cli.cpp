// The management command line of the real executable where it needs no
// registry: help, version, directory, the foreground run, the default start,
// the stop of an instance that is not running, and the instance-name rules.
#include "support/svc_service_process.h"

#include <QDir>
#include <QFileInfo>
#include <QtTest>

namespace {

// The help text as the operator must see it; "%s" is the program as called.
QByteArray expectedHelp(const QByteArray &program)
{
    const QList<QByteArray> options = {
        "-i(nstall) [account] [password]      : Install the service, optionally using given account and "
        "password",
        "-i(nstall) [-n(ame) serviceName]     : Install the service, optionally using the required service "
        "name",
        "-i(nstall) [-a(rgs) \"all args\"]      : Install the service, optionally using the required "
        "arguments",
        "-u(ninstall)                         : Uninstall the service.",
        "-u(ninstall) [-n(ame) serviceName]   : Uninstall the service, optionally using the required service "
        "name.",
        "-u(ninstall) [-all]                  : Uninstall all installed services.",
        "-e(xec)                              : Run as a regular application. Useful for debugging.",
        "-t(erminate)                         : Stop the service.",
        "-t(erminate) [-n(ame) serviceName]   : Stop the service, optionally using the required service "
        "name.",
        "-t(erminate) [-all]                  : Stop all installed services (Windows only).",
        "-c(ommand) num                       : Send command code num to the service.",
        "-c(ommand) num [-n(ame) serviceName] : Send command code num to the service using the required "
        "service "
        "name.",
        "-d(irectory installation)            : installation directory.",
        "-v(ersion)                           : Print version.",
        "-p(ause)  [-n(ame) serviceName]      : Pause.",
        "-r(esume) [-n(ame) serviceName]      : Resume.",
        "-s(tart) [-n(ame) serviceName]       : Start service, optionally using the required service name.",
        "-Q(uery)                             : Get the status of all installed services from this instance.",
        "-q(uery)                             : Get the status of all installed services from this instance "
        "without "
        "a title.",
        "-Qa(ll)                              : Get state all installed services.",
        "-qa(ll)                              : Get state all installed services without a title.",
        "No arguments [-n(ame) serviceName]   : Start the service, optionally using the required service "
        "name.",
        "-h(elp)                              : Show this help",
    };
    const QList<QByteArray> application = {
        "-p                                   : http port",
        "-ps                                  : https port",
        "-cfg                                 : config file (default ../etc/korb.xml)",
        "-ld                                  : log directory (default ../logs)",
        "-lt                                  : log level [0 - err only, 1 - warn, 2 - info, 3 - debug]",
        "-tc                                  : terminal codec [UTF-8, cp1251, cp688]",
        "-cmd                                 : make a request to the running application",
    };
    const QByteArray rule(59, '-');
    QByteArray text = "\n" + program + " -[a|e|h|i|n|s|u|v|q]\n";
    for (const QByteArray &line : options)
        text += "\t" + line + "\n";
    text += rule + "\n-------- directives for the application -------------------\n" + rule + "\n";
    for (const QByteArray &line : application)
        text += "\t" + line + "\n";
    text += rule + "\nexample:\n";
    text += "# install service\n " + program + "  -i  -n KORB.SRV   -a \"-p 9080 -ps 9081\"\n";
    text += "# start service\n " + program + "      -n KORB.SRV\n";
    text += "# stop service\n " + program + "  -t  -n KORB.SRV\n";
    text += "# uninstall service\n " + program + "  -u  -n KORB.SRV\n";
    text += "# start all services (Windows only)\n " + program + "  -n -all\n";
    text += "# stop all services (Windows only)\n " + program + "  -t  -all\n";
    text += "# uninstall all services\n " + program + "  -u  -all\n";
    text += "\n";
    return text;
}

QByteArray expectedVersion(const QByteArray &program)
{
    return program + " rev.1110 - Powered by qt5158_Linux.x64_gcc1220\n";
}

QProcessEnvironment environmentWith(const QString &name, const QString &value)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.remove(QStringLiteral("KORBSERVICE_RUN"));
    if (!name.isEmpty())
        environment.insert(name, value);
    return environment;
}

} // namespace

class tst_KorbServiceCli : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void helpAndVersion_data();
    void helpAndVersion();
    void helpSubstitutesProgramAsCalled();
    void directory();
    void stopWhenNotRunning_data();
    void stopWhenNotRunning();
    void nameRules_data();
    void nameRules();
    void foregroundRun_data();
    void foregroundRun();
    void defaultStartDetachesTheService_data();
    void defaultStartDetachesTheService();

private:
    QByteArray m_program;
};

void tst_KorbServiceCli::initTestCase()
{
    m_program = SvcTest::testServiceProgram().toLocal8Bit();
    QVERIFY2(QFileInfo(SvcTest::testServiceProgram()).isExecutable(), m_program.constData());
}

void tst_KorbServiceCli::helpAndVersion_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<bool>("help");

    QTest::newRow("-h") << QStringList{"-h"} << true;
    QTest::newRow("-H upper case") << QStringList{"-H"} << true;
    QTest::newRow("-h after an unknown argument") << QStringList{"-x", "-h"} << true;
    QTest::newRow("-h wins over -t before it") << QStringList{"-t", "-n", "x", "-h"} << true;
    QTest::newRow("-h before -v") << QStringList{"-h", "-v"} << true;
    QTest::newRow("-v") << QStringList{"-v"} << false;
    QTest::newRow("-V upper case") << QStringList{"-V"} << false;
    QTest::newRow("-v behind a name") << QStringList{"-n", "svcname", "-v"} << false;
    QTest::newRow("-v before -h") << QStringList{"-v", "-h"} << false;
    QTest::newRow("-v before -q") << QStringList{"-v", "-q"} << false;
}

void tst_KorbServiceCli::helpAndVersion()
{
    QFETCH(QStringList, arguments);
    QFETCH(bool, help);
    const SvcRun run = SvcTest::runProgram(arguments);
    QVERIFY(run.finished);
    QCOMPARE(run.exitCode, 0);
    QCOMPARE(run.err, QByteArray());
    QCOMPARE(run.out, help ? expectedHelp(m_program) : expectedVersion(m_program));
}

void tst_KorbServiceCli::helpSubstitutesProgramAsCalled()
{
    // Argument 0 is printed as it was typed, not as an absolute path.
    QProcess process;
    process.setWorkingDirectory(QStringLiteral(KORB_TEST_PROGRAMS_DIR));
    process.start(QStringLiteral("./korb_test_service"), {"-h"});
    QVERIFY(process.waitForFinished(10000));
    QCOMPARE(process.readAllStandardOutput(), expectedHelp("./korb_test_service"));
}

void tst_KorbServiceCli::directory()
{
    for (const QString &option : {QStringLiteral("-d"), QStringLiteral("-D"), QStringLiteral("-dir")}) {
        const SvcRun run = SvcTest::runProgram({option});
        QCOMPARE(run.exitCode, 0);
        // The directory above the one holding the program.
        const QString expected = QFileInfo(QStringLiteral(KORB_TEST_PROGRAMS_DIR "/..")).canonicalFilePath();
        QCOMPARE(run.out, expected.toLocal8Bit() + "\n");
    }
}

void tst_KorbServiceCli::stopWhenNotRunning_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::newRow("-t -n NAME") << QStringList{"-t", "-n", "%N"};
    QTest::newRow("-T -n NAME") << QStringList{"-T", "-n", "%N"};
    QTest::newRow("-terminate -n NAME") << QStringList{"-terminate", "-n", "%N"};
    QTest::newRow("-n NAME -t") << QStringList{"-n", "%N", "-t"};
    QTest::newRow("-n NAME -x -T") << QStringList{"-n", "%N", "-x", "-T"};
}

void tst_KorbServiceCli::stopWhenNotRunning()
{
    QFETCH(QStringList, arguments);
    const QString name = SvcTest::uniqueName(QStringLiteral("svcnotrun"));
    arguments.replaceInStrings(QStringLiteral("%N"), name);
    const SvcRun run = SvcTest::runProgram(arguments, environmentWith(QString(), QString()));
    QVERIFY(run.finished);
    QCOMPARE(run.exitCode, -4);
    QCOMPARE(run.out, QByteArray());
    QCOMPARE(run.err, QStringLiteral("The service %1 is not Running\n").arg(name).toLocal8Bit());
}

void tst_KorbServiceCli::nameRules_data()
{
    QTest::addColumn<QByteArray>("name");
    QTest::addColumn<QByteArray>("warning");
    QTest::addColumn<QByteArray>("printed");

    const QByteArray stem = SvcTest::uniqueName(QStringLiteral("svclong")).toLatin1();
    const QByteArray longName = stem + QByteArray(300 - stem.size(), 'x');
    QTest::newRow("300 characters are cut to 255")
        << longName << QByteArray("KorbService: 'name' is longer than 255 characters.\n")
        << longName.left(255);
    const QByteArray exact = stem + QByteArray(255 - stem.size(), 'y');
    QTest::newRow("255 characters stay") << exact << QByteArray() << exact;
    // A backslash becomes the character 0, so the printed name ends there.
    QTest::newRow("backslash becomes a zero character")
        << QByteArray(stem + "\\tail") << QByteArray("KorbService: 'name' contains backslashes '\\'.\n")
        << stem;
}

void tst_KorbServiceCli::nameRules()
{
    QFETCH(QByteArray, name);
    QFETCH(QByteArray, warning);
    QFETCH(QByteArray, printed);
    const SvcRun run = SvcTest::runProgram({"-t", "-n", QString::fromLatin1(name)});
    QVERIFY(run.finished);
    QCOMPARE(run.exitCode, -4);
    QCOMPARE(run.err, warning + "The service " + printed + " is not Running\n");
}

void tst_KorbServiceCli::foregroundRun_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("seen");
    QTest::newRow("-e first") << QStringList{"-e", "-n", "%N"} << "-n|%N";
    QTest::newRow("-e last") << QStringList{"-n", "%N", "-e"} << "-n|%N";
    QTest::newRow("-exec keeps the other arguments")
        << QStringList{"-lt", "3", "-exec", "-n", "%N"} << "-lt|3|-n|%N";
}

void tst_KorbServiceCli::foregroundRun()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, seen);
    const QString name = SvcTest::uniqueName(QStringLiteral("svcfg"));
    arguments.replaceInStrings(QStringLiteral("%N"), name);
    seen.replace(QStringLiteral("%N"), name);
    QTemporaryDir dir;
    const QString log = dir.path() + QStringLiteral("/log");
    QProcessEnvironment environment =
        environmentWith(QStringLiteral("KORB_TEST_SERVICE_EXIT"), QStringLiteral("5"));
    environment.insert(QStringLiteral("KORB_TEST_SERVICE_LOG"), log);
    const SvcRun run = SvcTest::runProgram(arguments, environment);
    QVERIFY(run.finished);
    // The application's exit code comes back, the run has no control channel
    // and is no service process.
    QCOMPARE(run.exitCode, 5);
    QCOMPARE(SvcTest::readLog(log),
             (QStringList{QStringLiteral("start pid=%1 run= args=%2").arg(SvcTest::startedPid(log)).arg(seen),
                          QStringLiteral("exit 5")}));
    QVERIFY(!QFileInfo::exists(SvcTest::socketPathFor(name)));
}

void tst_KorbServiceCli::defaultStartDetachesTheService_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::newRow("-cfg as first argument") << QStringList{"-cfg", "x.ini", "-n", "%N"};
    QTest::newRow("-CFG upper case") << QStringList{"-CFG", "-n", "%N"};
    QTest::newRow("application option only") << QStringList{"-lt", "3", "-n", "%N"};
}

void tst_KorbServiceCli::defaultStartDetachesTheService()
{
    QFETCH(QStringList, arguments);
    const QString name = SvcTest::uniqueName(QStringLiteral("svcdef"));
    arguments.replaceInStrings(QStringLiteral("%N"), name);
    QTemporaryDir dir;
    const QString log = dir.path() + QStringLiteral("/log");
    const QProcessEnvironment environment = environmentWith(QStringLiteral("KORB_TEST_SERVICE_LOG"), log);
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

    const SvcRun run = SvcTest::runProgram(arguments, environment);
    QVERIFY(run.finished);
    QCOMPARE(run.exitCode, 0);
    QCOMPARE(run.out, QByteArray());

    // The detached process is the service: marked by the variable, with the
    // same arguments, and listening on the instance's socket.
    QTRY_VERIFY_WITH_TIMEOUT(SvcTest::startedPid(log) > 0 && QFileInfo::exists(socket), 10000);
    // (Every process of the test service records its exit in the same log:
    // the launcher's "exit 0" is there too.)
    const QString started = QStringLiteral("start pid=%1 run=1 args=%2")
                                .arg(SvcTest::startedPid(log))
                                .arg(arguments.join(QLatin1Char('|')));
    QVERIFY2(SvcTest::readLog(log).contains(started), qPrintable(SvcTest::readLog(log).join(" / ")));

    // A second default start finds it alive and refuses.
    const SvcRun again = SvcTest::runProgram(arguments, environment);
    QCOMPARE(again.exitCode, -4);
    QVERIFY2(again.err.contains(QStringLiteral("Service %1 is Running!").arg(name).toLocal8Bit()),
             again.err.constData());

    // The management stop reaches it through its channel.
    const SvcRun stop = SvcTest::runProgram({"-t", "-n", name}, environment);
    QCOMPARE(stop.exitCode, 0);
    QTRY_VERIFY_WITH_TIMEOUT(!QFileInfo::exists(socket), 10000);
    QTRY_COMPARE(SvcTest::readLog(log).count(QStringLiteral("stop")), 1);
    const QStringList lines = SvcTest::readLog(log);
    QCOMPARE(lines.count(QStringLiteral("exit -4")), 1);
    // Launcher, stopper and service each ended with 0.
    QTRY_COMPARE(SvcTest::readLog(log).count(QStringLiteral("exit 0")), 3);
    QCOMPARE(lines.size(), 6);
}

QTEST_GUILESS_MAIN(tst_KorbServiceCli)
#include "tst_korb_service_cli.moc"
