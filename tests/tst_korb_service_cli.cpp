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
    // clang-format off
    const QByteArray rule(59, '-');
    QByteArray text =
        "\n%s -[a|e|h|i|n|s|u|v|q]\n"
        "\t-i(nstall) [account] [password]      : Install the service, optionally using given account and password\n"
        "\t-i(nstall) [-n(ame) serviceName]     : Install the service, optionally using the required service name\n"
        "\t-i(nstall) [-a(rgs) \"all args\"]      : Install the service, optionally using the required arguments\n"
        "\t-u(ninstall)                         : Uninstall the service.\n"
        "\t-u(ninstall) [-n(ame) serviceName]   : Uninstall the service, optionally using the required service name.\n"
        "\t-u(ninstall) [-all]                  : Uninstall all installed services.\n"
        "\t-e(xec)                              : Run as a regular application. Useful for debugging.\n"
        "\t-t(erminate)                         : Stop the service.\n"
        "\t-t(erminate) [-n(ame) serviceName]   : Stop the service, optionally using the required service name.\n"
        "\t-t(erminate) [-all]                  : Stop all installed services (Windows only).\n"
        "\t-c(ommand) num                       : Send command code num to the service.\n"
        "\t-c(ommand) num [-n(ame) serviceName] : Send command code num to the service using the required service name.\n"
        "\t-d(irectory installation)            : installation directory.\n"
        "\t-v(ersion)                           : Print version.\n"
        "\t-p(ause)  [-n(ame) serviceName]      : Pause.\n"
        "\t-r(esume) [-n(ame) serviceName]      : Resume.\n"
        "\t-s(tart) [-n(ame) serviceName]       : Start service, optionally using the required service name.\n"
        "\t-Q(uery)                             : Get the status of all installed services from this instance.\n"
        "\t-q(uery)                             : Get the status of all installed services from this instance without a title.\n"
        "\t-Qa(ll)                              : Get state all installed services.\n"
        "\t-qa(ll)                              : Get state all installed services without a title.\n"
        "\tNo arguments [-n(ame) serviceName]   : Start the service, optionally using the required service name.\n"
        "\t-h(elp)                              : Show this help\n"
        + rule + "\n-------- directives for the application -------------------\n" + rule + "\n"
        "\t-p                                   : http port\n"
        "\t-ps                                  : https port\n"
        "\t-cfg                                 : config file (default ../etc/korb.xml)\n"
        "\t-ld                                  : log directory (default ../logs)\n"
        "\t-lt                                  : log level [0 - err only, 1 - warn, 2 - info, 3 - debug]\n"
        "\t-tc                                  : terminal codec [UTF-8, cp1251, cp688]\n"
        "\t-cmd                                 : make a request to the running application\n"
        + rule + "\nexample:\n"
        "# install service\n %s  -i  -n KORB.SRV   -a \"-p 9080 -ps 9081\"\n"
        "# start service\n %s      -n KORB.SRV\n"
        "# stop service\n %s  -t  -n KORB.SRV\n"
        "# uninstall service\n %s  -u  -n KORB.SRV\n"
        "# start all services (Windows only)\n %s  -n -all\n"
        "# stop all services (Windows only)\n %s  -t  -all\n"
        "# uninstall all services\n %s  -u  -all\n"
        "\n";
    // clang-format on
    return text.replace("%s", program);
}

QByteArray expectedVersion(const QByteArray &program)
{
    return program + " rev.1110 - Powered by qt5158_Linux.x64_gcc1220\n";
}

} // namespace

class tst_KorbServiceCli : public QObject
{
    Q_OBJECT

private slots:
    void helpAndVersion_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<bool>("help");
        // The first argument that is one of -h, -v, -q wins, whatever comes before it.
        QTest::newRow("-H upper case") << QStringList{"-H"} << true;
        QTest::newRow("-h after an unknown argument") << QStringList{"-x", "-h"} << true;
        QTest::newRow("-h wins over -t before it") << QStringList{"-t", "-n", "x", "-h"} << true;
        QTest::newRow("-h before -v") << QStringList{"-h", "-v"} << true;
        QTest::newRow("-V upper case") << QStringList{"-V"} << false;
        QTest::newRow("-v before -h") << QStringList{"-v", "-h"} << false;
        QTest::newRow("-v before -q") << QStringList{"-v", "-q"} << false;
    }

    void helpAndVersion()
    {
        QFETCH(QStringList, arguments);
        QFETCH(bool, help);
        // Argument 0 is printed as it was typed, not as an absolute path.
        QVERIFY(QDir::setCurrent(QStringLiteral(KORB_TEST_PROGRAMS_DIR)));
        const SvcRun run = svcRun(QStringLiteral("./korb_test_service"), arguments);
        QCOMPARE(run.exitCode, 0);
        QCOMPARE(run.err, QByteArray());
        QCOMPARE(run.out,
                 help ? expectedHelp("./korb_test_service") : expectedVersion("./korb_test_service"));
    }

    void directory()
    {
        // The directory above the one holding the program.
        const QString expected = QFileInfo(QStringLiteral(KORB_TEST_PROGRAMS_DIR "/..")).canonicalFilePath();
        for (const QString &option : {QStringLiteral("-D"), QStringLiteral("-dir")}) {
            const SvcRun run = SvcTest::runProgram({option});
            QCOMPARE(run.exitCode, 0);
            QCOMPARE(run.out, expected.toLocal8Bit() + "\n");
        }
    }

    void stopWhenNotRunningAndNameRules_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QByteArray>("name");
        QTest::addColumn<QByteArray>("warning");
        QTest::addColumn<QByteArray>("printed");

        const QByteArray stem = SvcTest::uniqueName(QStringLiteral("svcname")).toLatin1();
        const QByteArray longName = stem + QByteArray(300 - stem.size(), 'x');
        QTest::newRow("-Terminate -n NAME, 300 characters cut to 255")
            << QStringList{"-Terminate", "-n", "%N"} << longName
            << QByteArray("KorbService: 'name' is longer than 255 characters.\n") << longName.left(255);
        const QByteArray exact = stem + QByteArray(255 - stem.size(), 'y');
        QTest::newRow("-n NAME -x -T, 255 characters stay")
            << QStringList{"-n", "%N", "-x", "-T"} << exact << QByteArray() << exact;
        // A backslash becomes the character 0, so the printed name ends there.
        QTest::newRow("-t -n NAME, backslash becomes a zero character")
            << QStringList{"-t", "-n", "%N"} << QByteArray(stem + "\\tail")
            << QByteArray("KorbService: 'name' contains backslashes '\\'.\n") << stem;
    }

    void stopWhenNotRunningAndNameRules()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QByteArray, name);
        QFETCH(QByteArray, warning);
        QFETCH(QByteArray, printed);
        const SvcRun run =
            SvcTest::runProgram(arguments.replaceInStrings(QStringLiteral("%N"), QString::fromLatin1(name)));
        QCOMPARE(run.exitCode, -4);
        QCOMPARE(run.out, QByteArray());
        QCOMPARE(run.err, warning + "The service " + printed + " is not Running\n");
    }

    void foregroundRun()
    {
        const QString name = SvcTest::uniqueName(QStringLiteral("svcfg"));
        QTemporaryDir dir;
        const QString log = dir.path() + QStringLiteral("/log");
        QProcessEnvironment environment = SvcTest::managementEnvironment(log);
        environment.insert(QStringLiteral("KORB_TEST_SERVICE_EXIT"), QStringLiteral("5"));
        // -exec is removed, the other arguments reach the application; its exit
        // code comes back, and the run is no service process with no channel.
        QCOMPARE(SvcTest::runProgram({"-lt", "3", "-exec", "-n", name}, environment).exitCode, 5);
        const QString started =
            QStringLiteral("start pid=%1 run= args=-lt|3|-n|%2").arg(SvcTest::startedPid(log)).arg(name);
        QCOMPARE(SvcTest::readLog(log), (QStringList{started, "exit 5"}));
        QVERIFY(!QFileInfo::exists(SvcTest::socketPathFor(name)));
    }

    void defaultStartDetachesTheService_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::newRow("-CFG as first argument") << QStringList{"-CFG", "x.ini", "-n", "%N"};
        QTest::newRow("application option only") << QStringList{"-lt", "3", "-n", "%N"};
    }

    void defaultStartDetachesTheService()
    {
        QFETCH(QStringList, arguments);
        const QString name = SvcTest::uniqueName(QStringLiteral("svcdef"));
        arguments.replaceInStrings(QStringLiteral("%N"), name);
        QTemporaryDir dir;
        const SvcTest::DetachedGuard guard{dir.path() + QStringLiteral("/log"), SvcTest::socketPathFor(name)};
        const QProcessEnvironment environment = SvcTest::managementEnvironment(guard.log);

        const SvcRun run = SvcTest::runProgram(arguments, environment);
        QCOMPARE(run.exitCode, 0);
        QCOMPARE(run.out, QByteArray());
        // The detached process is the service: marked by the variable, with the
        // same arguments, and listening on the instance's socket.
        QTRY_VERIFY_WITH_TIMEOUT(SvcTest::startedPid(guard.log) > 0 && QFileInfo::exists(guard.socket),
                                 10000);
        const QString started = QStringLiteral("start pid=%1 run=1 args=%2")
                                    .arg(SvcTest::startedPid(guard.log))
                                    .arg(arguments.join(QLatin1Char('|')));
        QVERIFY2(SvcTest::readLog(guard.log).contains(started),
                 qPrintable(SvcTest::readLog(guard.log).join(" / ")));

        // A second default start finds it alive and refuses.
        const SvcRun again = SvcTest::runProgram(arguments, environment);
        QCOMPARE(again.exitCode, -4);
        QVERIFY2(again.err.contains(QStringLiteral("Service %1 is Running!").arg(name).toLocal8Bit()),
                 again.err.constData());

        // The management stop reaches it through its channel; launcher, stopper
        // and service each end with 0.
        QCOMPARE(SvcTest::runProgram({"-t", "-n", name}, environment).exitCode, 0);
        QTRY_VERIFY_WITH_TIMEOUT(!QFileInfo::exists(guard.socket), 10000);
        QTRY_COMPARE(SvcTest::readLog(guard.log).count(QStringLiteral("stop")), 1);
        QTRY_COMPARE(SvcTest::readLog(guard.log).count(QStringLiteral("exit 0")), 3);
    }
};

QTEST_GUILESS_MAIN(tst_KorbServiceCli)
#include "tst_korb_service_cli.moc"
