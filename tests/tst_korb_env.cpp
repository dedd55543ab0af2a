// Path and environment helpers: paths against their absolute forms, list
// variables before and after, working directories entered or refused.
#include "logger/korb_logger_light.h"
#include "src/korb_env.h"

#include <QTemporaryDir>
#include <QtTest>

class tst_KorbEnv : public QObject
{
    Q_OBJECT

    QTemporaryDir m_tmp;
    const QString m_inst = QDir(m_tmp.path()).absoluteFilePath(QStringLiteral("inst"));

private slots:
    void initTestCase()
    {
        QVERIFY(QDir().mkpath(m_inst + "/bin"));
        Korb::setAppDir(m_inst + "/bin");
        KorbLoggerLight::instance()->setLogDir(m_tmp.filePath(QStringLiteral("logs")));
    }

    // getAbsPath(path), or envAppend of `value` to a list holding `path`
    // ("-": unset), against the result (%I: the directory above the program's).
    void paths_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("value");
        QTest::addColumn<QString>("result");
        auto add = [](const char *tag, const char *path, const char *value, const char *result) {
            QTest::newRow(tag) << path << value << result;
        };
        add("absolute unix path as it is", "/var/x", "", "/var/x");
        add("drive path as it is", "C:/x", "", "C:/x");
        add("a drive letter's colon alone", "C:x", "", "C:x");
        add("relative to the application directory", "../logs", "", "%I/logs");
        add("plain name beside the program", "a.ini", "", "%I/bin/a.ini");
        add("append to unset: just the value", "-", "x", "x");
        add("append present value: to the front", "a:b", "b", "b:a");
        add("append new value: first, no duplicates", "a:b:a", "c", "c:a:b");
        add("append to a ';' list: its separator", "a;b", "c", "c;a;b");
    }

    void paths()
    {
        QFETCH(QString, path);
        QFETCH(QString, value);
        QFETCH(QString, result);
        result.replace("%I", m_inst);
        if (value.isEmpty()) {
            QCOMPARE(Korb::getAbsPath(path), result);
            return;
        }
        path == "-" ? qunsetenv("KORB_TEST_LIST") : qputenv("KORB_TEST_LIST", path.toUtf8());
        QVERIFY(Korb::envAppend(QStringLiteral("KORB_TEST_LIST"), value));
        QCOMPARE(QString::fromUtf8(qgetenv("KORB_TEST_LIST")), result);
    }

    void setAppPath()
    {
        for (const char *dir : {"php5", "php", "lib64"})
            QVERIFY(QDir().mkpath(m_inst + '/' + dir));
        const QByteArray path = qgetenv("PATH");
        qputenv("PATH", "/usr/bin;/bin;/usr/bin");
        qunsetenv("LD_LIBRARY_PATH");
        Korb::setAppPath();
        QCOMPARE(QString::fromUtf8(qgetenv("PATH")), m_inst + "/php;" + m_inst + "/php5;/usr/bin;/bin");
        QVERIFY(qgetenv("LD_LIBRARY_PATH").split(':').contains(m_inst.toUtf8() + "/lib64"));
        qputenv("PATH", path);
    }

    void workingDirectories()
    {
        QVERIFY(Korb::setCurrentDir(m_tmp.filePath(QStringLiteral("a/b"))));
        QCOMPARE(QDir::currentPath(), m_tmp.filePath(QStringLiteral("a/b")));
        QVERIFY(Korb::changeWorkDir(QString()));
        QCOMPARE(QDir::currentPath(), m_inst + "/bin");
        QVERIFY(!Korb::changeWorkDir(m_tmp.filePath(QStringLiteral("none"))));
        QCOMPARE(QDir::currentPath(), m_inst + "/bin");
        // A file stands where the directory would have to be made.
        QVERIFY(QFile(m_tmp.filePath(QStringLiteral("f"))).open(QIODevice::WriteOnly));
        QVERIFY(!Korb::setCurrentDir(m_tmp.filePath(QStringLiteral("f/sub"))));
    }
};

QTEST_GUILESS_MAIN(tst_KorbEnv)
#include "tst_korb_env.moc"
