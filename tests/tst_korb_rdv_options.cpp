// The relay's options: what a command line (and the configuration file
// beside it) settles, with the quirks operators' scripts rely on.
#include "logger/korb_log.h"
#include "logger/korb_logger_light.h"
#include "src/korb_env.h"
#include "src/korb_rdv_options.h"
#include "support/ws_test_client.h"

#include <QtTest>

namespace {
// Every field an option can set, as one line of "name=value" items.
QString settled(const KorbRdvOptions &o, const QString &root)
{
    const auto opt = [](auto v) { return v ? QString::number(*v) : QStringLiteral("-"); };
    const auto rel = [&root](QString path) {
        return path.replace(root + "/bin/..", QStringLiteral("~")).replace(root, QStringLiteral("~"));
    };
    const auto n = [](auto v) { return QString::number(v); };
    const KorbRdvOptions::Recording &r = o.recording;
    // clang-format off
    return QStringList{"port=" + n(o.port), "tls=" + n(o.securePort), "device=" + o.deviceHost + ':' + n(o.devicePort),
                       "udp=" + n(o.udpPorts[0]) + ',' + n(o.udpPorts[1]), "interval=" + opt(o.sendIntervalMs),
                       "clients=" + n(o.maxClients), "replay=" + rel(o.replayFile), "mqtt=" + o.mqttTarget + '|' + o.mqttSource,
                       "lt=" + opt(o.logThreshold) + (o.logThresholdValid ? "" : "?"), "ld=" + rel(o.logDir),
                       "tc=" + QString::fromLatin1(o.terminalCodec), "cfg=" + rel(o.configFile), "nofile=" + n(o.noFile),
                       "cert=" + rel(o.tlsCertificate), "key=" + rel(o.tlsKey),
                       QStringList{"record=" + rel(r.dir), n(r.fileMb), n(r.totalMb), n(r.keepDays), n(r.gated)}.join(','),
                       "window=" + opt(o.replayFromMs) + ',' + opt(o.replayToMs), "dumps=" + n(o.dumpQuotaMb),
                       "silence=" + n(o.healthSilenceS), ""}.join(' ');
    // clang-format on
}
} // namespace

class tst_KorbRdvOptions : public QObject
{
    Q_OBJECT

private slots:
    void cleanupTestCase()
    {
        Korb::sendIntervalMs = Korb::DefaultSendIntervalMs, Korb::logThreshold = Korb::DefaultLogThreshold;
    }

    void initTestCase()
    {
        Korb::setAppDir(m_tmp.filePath("bin"));
        KorbLoggerLight::instance()->setLogDir(m_tmp.filePath("logs"));
        const QString etc = m_tmp.filePath("etc/");
        QVERIFY(RdvTest::writeFile(m_tmp.filePath("rec.rdv"), "") && QDir(m_tmp.path()).mkpath("etc") &&
                RdvTest::writeFile(etc + "relay.ini", "[tls]\ncertificate=/pki/relay.crt\nkey=relay.key\n"
                                                      "[http]\nhealth_silence_s=3\n[domains]\nx=1\n") &&
                RdvTest::writeFile(etc + "record.ini",
                                   "[record]\ndir=/srv/rec\nfile_mb=1\ntotal_mb=3\nkeep_days=2\n"
                                   "gated=TRUE\n[access]\ndump_quota_mb=5\n") &&
                RdvTest::writeFile(etc + "refused.ini",
                                   "[record]\nfile_mb=65\ntotal_mb=0\nkeep_days=x\ngated=yes\n"));
    }

    void parse_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QString>("expected"); // items of settled(), each followed by a blank
        // clang-format off
        QTest::newRow("nothing given: the defaults") << QStringList{} << "port=3005 tls=0 device=127.0.0.1:3005 udp=0,0 interval=- clients=1024 replay= mqtt=| lt=-? ld= tc= cfg=~/etc/KorbRdv_streamer.ini nofile=0 cert=~/etc/korb.crt key=~/etc/korb.key record=,64,10240,7,0 window=-,- dumps=1024 silence=10";
        QTest::newRow("-p 0 and -p 1 end as 3005") << QStringList{"-p", "1", "-p", "0"} << "port=3005";
        QTest::newRow("-p 0x10 hexadecimal; ff hexadecimal when not decimal") << QStringList{"-p", "0x10", "-P", "ff"} << "port=255";
        QTest::newRow("-p 65534 and a value of neither base end as 3005") << QStringList{"-p", "65534", "-p", "zz"} << "port=3005";
        QTest::newRow("-p 0x10 alone") << QStringList{"-p", "0x10"} << "port=16";
        QTest::newRow("a word option before another option takes no value") << QStringList{"-p", "-ps", "0x2000"} << "port=3005 tls=8192";
        QTest::newRow("one UDP port is kept, but no pair") << QStringList{"-udp1=5000"} << "udp=5000,0";
        QTest::newRow("both UDP ports; 65535 refused") << QStringList{"-udp1=5000", "-udp2=65535", "-udp2=5001"} << "udp=5000,5001";
        QTest::newRow("-interval_ms=2 taken, a refused one puts back 50") << QStringList{"-interval_ms=2"} << "interval=2";
        QTest::newRow("-interval_ms=1 after 100") << QStringList{"-interval_ms=100", "-interval_ms=1"} << "interval=50";
        QTest::newRow("device: bracketed IPv6 and port; a bad port is the default") << QStringList{"-addr=[::1]:4001", "-addr=dev:x"} << "device=dev:3005";
        QTest::newRow("device: bracketed IPv6 and port") << QStringList{"-addr=[::1]:4001"} << "device=::1:4001";
        QTest::newRow("client limit; 0 refused") << QStringList{"-max_clients=5", "-max_clients=0"} << "clients=5";
        QTest::newRow("-file= of nothing, then of a file") << QStringList{"-file=" + m_tmp.filePath("none.rdv"), "-file=../rec.rdv"} << "replay=~/rec.rdv";
        QTest::newRow("-file= of a folder") << QStringList{"-file=.."} << "replay=~";
        QTest::newRow("a window in UTC, without a zone too; a time that is none refused") << QStringList{"-from=2026-11-24T04:00:00+01:00", "-to=2026-11-24T04:00:00.500", "-to=today"} << "window=1795489200000,1795492800500";
        QTest::newRow("[record] and [access] keys") << QStringList{"-cfg", "record.ini"} << "record=/srv/rec,1,3,2,1 dumps=5";
        QTest::newRow("the command line before the keys") << QStringList{"-cfg", "record.ini", "-record=../rec", "-dump_quota_mb=7"} << "record=~/rec,1,3,2,1 dumps=7";
        QTest::newRow("sizes, days and flags out of range refused") << QStringList{"-cfg", "refused.ini", "-dump_quota_mb=0", "-record="} << "record=,64,10240,7,0 dumps=1024";
        QTest::newRow("brokers") << QStringList{"-mqtt=b:1884", "-mqtt-sub=b/korbrdv/x/rdv"} << "mqtt=b:1884|b/korbrdv/x/rdv";
        QTest::newRow("-lt abc: errors only") << QStringList{"-lt", "abc"} << "lt=0?";
        QTest::newRow("-LT 3, -ld and -tc in any case") << QStringList{"-LT", "3", "-LD", "../journal", "-Tc", "cp1251"} << "lt=3 ld=~/journal tc=cp1251";
        QTest::newRow("-cfg -nofile: no value, -nofile an option of its own") << QStringList{"-cfg", "-nofile"} << "cfg=~/etc/KorbRdv_streamer.ini nofile=1 cert=~/etc/korb.crt";
        QTest::newRow("-cfg of a relative name: in ../etc; its [tls] and [http] keys") << QStringList{"-cfg", "relay.ini"} << "cfg=~/etc/relay.ini cert=/pki/relay.crt key=~/bin/relay.key silence=3";
        QTest::newRow("-nofile: the configuration's keys are not read") << QStringList{"-cfg", "relay.ini", "-nofile"} << "cert=~/etc/korb.crt";
        QTest::newRow("unknown options are passed over") << QStringList{"-zz=1", "-what", "-n", "x", "-p", "4000"} << "port=4000 device=127.0.0.1:3005";
        // clang-format on
    }

    void parse()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QString, expected);
        const KorbRdvOptions o = KorbRdvOptions::parse(QStringList("relay") + arguments);
        const QString all = settled(o, m_tmp.path());
        for (const QString &item : expected.split(' '))
            QVERIFY2(all.contains(' ' + item + ' ') || all.startsWith(item + ' '),
                     qPrintable(item + " not in " + all));
        // Applied, what was given is the process's; what was not leaves the process's as it was.
        Korb::sendIntervalMs = 1, Korb::logThreshold = -1;
        o.applyProcessWide();
        QCOMPARE(int(Korb::sendIntervalMs), int(o.sendIntervalMs.value_or(1)));
        QCOMPARE(Korb::logThreshold, o.logThreshold.value_or(-1));
    }

    // Every option of the table is documented where users look for it.
    void readmeListsEveryOption()
    {
        const QString text =
            QString::fromUtf8(RdvTest::readFile(QStringLiteral(KORB_SOURCE_DIR "/README.md")));
        const int from = text.indexOf("## Running the relay");
        QVERIFY(from >= 0);
        const QString options = text.mid(from, text.indexOf("\n## ", from + 1) - from);
        for (const KorbRdvOptions::Row &row : KorbRdvOptions::table()) {
            const QStringList key = QString::fromLatin1(row.iniKey).split('/');
            QVERIFY2(row.name ? options.contains(QLatin1Char('`') + QLatin1String(row.name))
                              : text.contains('[' + key[0] + ']') && text.contains(key.value(1) + '='),
                     row.name ? row.name : row.iniKey);
        }
    }

private:
    QTemporaryDir m_tmp;
};

QTEST_GUILESS_MAIN(tst_KorbRdvOptions)
#include "tst_korb_rdv_options.moc"
