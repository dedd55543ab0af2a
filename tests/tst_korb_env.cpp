// Path and environment helpers.
#include "logger/korb_logger_light.h"
#include "src/korb_env.h"

#include <QDir>
#include <QTemporaryDir>
#include <QtTest>

class tst_KorbEnv : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanup();
    void getAbsPath_data();
    void getAbsPath();
    void setCurrentDirCreates();
    void setCurrentDirFailureReported();
    void changeWorkDir();
    void envAppend_data();
    void envAppend();
    void setAppPathOrder();

private:
    QTemporaryDir m_tmp;
    QString m_app;
};

void tst_KorbEnv::initTestCase()
{
    QVERIFY(m_tmp.isValid());
    m_app = m_tmp.filePath(QStringLiteral("inst/bin"));
    QVERIFY(QDir().mkpath(m_app));
    Korb::setAppDir(m_app);
    KorbLoggerLight::instance()->setLogDir(m_tmp.filePath(QStringLiteral("logs")));
}

void tst_KorbEnv::cleanup()
{
    QDir::setCurrent(m_tmp.path());
}

void tst_KorbEnv::getAbsPath_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("expected");
    QTest::newRow("absolute unix path as it is") << "/var/x"
                                                 << "/var/x";
    QTest::newRow("drive path as it is") << "C:/x"
                                         << "C:/x";
    QTest::newRow("relative to the application directory") << "../logs"
                                                           << "inst/logs";
    QTest::newRow("plain name beside the program") << "file.ini"
                                                   << "inst/bin/file.ini";
}

void tst_KorbEnv::getAbsPath()
{
    QFETCH(QString, path);
    QFETCH(QString, expected);
    if (expected.startsWith(QLatin1String("inst/")))
        expected = QDir(m_tmp.path()).absoluteFilePath(expected);
    QCOMPARE(Korb::getAbsPath(path), expected);
}

void tst_KorbEnv::setCurrentDirCreates()
{
    const QString dir = m_tmp.filePath(QStringLiteral("a/b/c"));
    QVERIFY(Korb::setCurrentDir(dir));
    QCOMPARE(QDir::currentPath(), QDir(dir).absolutePath());
}

void tst_KorbEnv::setCurrentDirFailureReported()
{
    // A regular file stands where a directory would have to be created.
    const QString blocker = m_tmp.filePath(QStringLiteral("blocker"));
    QFile f(blocker);
    QVERIFY(f.open(QIODevice::WriteOnly));
    f.close();
    const QString logFile = KorbLoggerLight::instance()->currentFilePath();
    QFile::remove(logFile);
    QVERIFY(!Korb::setCurrentDir(blocker + QStringLiteral("/sub")));
    QFile log(logFile);
    QVERIFY(log.open(QIODevice::ReadOnly));
    QVERIFY(QString::fromUtf8(log.readAll())
                .contains(QStringLiteral("Не создана директория для записи файлов '")));
}

void tst_KorbEnv::changeWorkDir()
{
    QVERIFY(Korb::changeWorkDir(QString()));
    QCOMPARE(QDir::currentPath(), QDir(m_app).absolutePath());
    QVERIFY(!Korb::changeWorkDir(m_tmp.filePath(QStringLiteral("does-not-exist"))));
    QCOMPARE(QDir::currentPath(), QDir(m_app).absolutePath());
}

void tst_KorbEnv::envAppend_data()
{
    QTest::addColumn<QByteArray>("before");
    QTest::addColumn<bool>("set");
    QTest::addColumn<QString>("value");
    QTest::addColumn<QByteArray>("after");
    QTest::newRow("unset variable yields the value") << QByteArray() << false << "x" << QByteArray("x");
    QTest::newRow("existing value moves to the front")
        << QByteArray("a:b") << true << "b" << QByteArray("b:a");
    QTest::newRow("new value goes first") << QByteArray("a:b") << true << "c" << QByteArray("c:a:b");
    QTest::newRow("semicolon list keeps its separator")
        << QByteArray("a;b") << true << "c" << QByteArray("c;a;b");
}

void tst_KorbEnv::envAppend()
{
    QFETCH(QByteArray, before);
    QFETCH(bool, set);
    QFETCH(QString, value);
    QFETCH(QByteArray, after);
    const char *name = "KORB_TEST_LIST";
    if (set)
        qputenv(name, before);
    else
        qunsetenv(name);
    QVERIFY(Korb::envAppend(QString::fromLatin1(name), value));
    QCOMPARE(qgetenv(name), after);
}

void tst_KorbEnv::setAppPathOrder()
{
    QVERIFY(QDir().mkpath(m_tmp.filePath(QStringLiteral("inst/php5"))));
    QVERIFY(QDir().mkpath(m_tmp.filePath(QStringLiteral("inst/php"))));
    QVERIFY(QDir().mkpath(m_tmp.filePath(QStringLiteral("inst/lib64"))));
    const QByteArray savedPath = qgetenv("PATH");
    qputenv("PATH", "/usr/bin;/bin;/usr/bin");
    qunsetenv("LD_LIBRARY_PATH");
    Korb::setAppPath();
    const QString inst = QDir(m_tmp.path()).absoluteFilePath(QStringLiteral("inst"));
    QCOMPARE(QString::fromLocal8Bit(qgetenv("PATH")),
             inst + QStringLiteral("/php;") + inst + QStringLiteral("/php5;/usr/bin;/bin"));
    const QStringList ld = QString::fromLocal8Bit(qgetenv("LD_LIBRARY_PATH")).split(QLatin1Char(':'));
    QVERIFY(ld.contains(inst + QStringLiteral("/lib64")));
    qputenv("PATH", savedPath);
}

QTEST_GUILESS_MAIN(tst_KorbEnv)
#include "tst_korb_env.moc"
