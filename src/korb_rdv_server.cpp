#include "src/korb_rdv_server.h"

#include "logger/korb_log.h"
#include "logger/korb_logger_light.h"
#include "src/korb_env.h"
#include "src/korb_rdv_assembly.h"
#include "src/korb_rdv_banner.h"
#include "src/korb_rdv_settings.h"
#include "src/korb_rdv_tcp_cli.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileSystemWatcher>
#include <QPointer>
#include <QSettings>
#include <QTextCodec>
#include <QThread>
#include <QTimer>

#include <cstdlib>

namespace {

constexpr int StopStepMs = 25;
// The configuration reading pauses this long, responsive: an editor that
// saves in several steps has finished before the next reading.
constexpr int ConfigSettleMs = 350;
constexpr int ConfigSettleSliceMs = 10;

// Waits `ms` while processing events; false when `guard` was deleted meanwhile.
bool waitResponsively(QObject *guard, int ms)
{
    const QPointer<QObject> alive(guard);
    QElapsedTimer wait;
    wait.start();
    while (wait.elapsed() < ms) {
        if (QCoreApplication::instance())
            QCoreApplication::processEvents(QEventLoop::AllEvents, ConfigSettleSliceMs);
        if (!alive)
            return false;
        QThread::msleep(ConfigSettleSliceMs);
    }
    return true;
}

// The separator line of the stop sequence and of the configuration reading.
QString separator(char fill)
{
    return QString().leftJustified(133, QLatin1Char(fill));
}

} // namespace

KorbRdvStreamer::KorbRdvStreamer(QObject *parent, bool underService, const QStringList &arguments,
                                 const QString &serviceName)
    : QObject(parent)
{
    setObjectName(QStringLiteral("server"));
    m_serviceFlag = underService ? 1 : 0;
    m_serviceName = serviceName.isEmpty() ? QString::fromLatin1(DefaultInstanceName) : serviceName;

    m_wakeUpper = new QTimer(this);
    m_wakeUpper->setObjectName(QStringLiteral("tmr_wakeUpper"));
    m_wakeUpper->setInterval(1000);
    connect(m_wakeUpper, &QTimer::timeout, this, &KorbRdvStreamer::slotTimerOneSecond);
    connect(m_wakeUpper, &QObject::destroyed, this, &KorbRdvStreamer::del);

    KorbRdvOptions options =
        KorbRdvOptions::parse(arguments.isEmpty() ? QCoreApplication::arguments() : arguments);
    options.applyProcessWide();
    m_readingSuppressed = options.noFile;
    const bool locked = takeInstanceLock(options.port);
    // The UDP receiver runs only with both ports.
    if (!options.udp())
        options.udpPorts[0] = options.udpPorts[1] = 0;

    m_assembly = new KorbRdvAssembly(this, options, m_serviceName);
    m_fatal = !m_assembly->openPorts() || !m_assembly->openSources();
    KTRACE << "RDK-2: "
           << QStringLiteral("%1 v.%2 ws port").arg(QLatin1String(Korb::ProgramName), QLatin1String(Version))
           << options.port;

    if (!locked || m_fatal) {
        // Another instance owns this port, or the port cannot be served:
        // leave with a failure status so that systemd may try again later.
        m_fatal = true;
        QTimer::singleShot(1, this, &KorbRdvStreamer::halt);
        return;
    }
    QMetaObject::invokeMethod(this, "all_start", Qt::QueuedConnection);
}

KorbRdvStreamer::~KorbRdvStreamer()
{
    KLOG(this, 1, tr("завершение работы сервера %1").arg(QLatin1String(Korb::ProgramName)));
    m_destroying = true;
    halt();
    KLOG(this, 1, tr("приложение завершено"));
    if (Korb::logThreshold > 3)
        KLOG(this, 4, QStringLiteral("destruct - %1").arg(Korb::lastHandledSignal));
    if (m_lock.isAttached())
        m_lock.detach();
}

bool KorbRdvStreamer::takeInstanceLock(quint16 port)
{
    const QString key = QStringLiteral("%1-%2").arg(QLatin1String(Korb::ProgramName)).arg(port);
    // A segment left by a crashed instance goes away once its last user
    // detaches: attaching and detaching first clears such a stale segment.
    {
        QSharedMemory stale(key);
        if (stale.attach())
            stale.detach();
    }
    m_lock.setKey(key);
    if (m_lock.create(1))
        return true;
    KLOG(this, -1,
         tr("экземпляр %1 с портом %2 уже запущен: %3")
             .arg(QLatin1String(Korb::ProgramName))
             .arg(port)
             .arg(m_lock.errorString()));
    return false;
}

QString KorbRdvStreamer::label() const
{
    return m_serviceFlag > 0 ? tr("Служба: %1").arg(m_serviceName) : QString::fromLatin1(Korb::ProgramName);
}

QString KorbRdvStreamer::tempPath()
{
    const QString dir = Korb::getAbsPath(QStringLiteral("../tmp"));
    QDir().mkpath(dir);
    return dir;
}

QString KorbRdvStreamer::pidFilePath()
{
    return tempPath() +
           QStringLiteral("/%1-%2.pid").arg(QLatin1String(Korb::ProgramName)).arg(options().port);
}

void KorbRdvStreamer::all_start()
{
    if (options().replay())
        return;
    const QPointer<KorbRdvStreamer> self(this);
    if (!init() && self)
        KLOG(this, -1, tr("выход из приложения"));
}

void KorbRdvStreamer::writeBanner()
{
    for (const QString &line : Korb::bannerLines(QLatin1String(Version)))
        KLOG(this, 1, line);
}

bool KorbRdvStreamer::writePidFile()
{
    QFile pid(pidFilePath());
    if (!pid.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        KLOG(this, 0, tr("не записан файл %1: %2").arg(pid.fileName(), pid.errorString()));
        return false;
    }
    pid.write(QByteArray::number(QCoreApplication::applicationPid()) + '\n');
    return true;
}

bool KorbRdvStreamer::init()
{
    writeBanner();
    KLOG(this, 1, tr("установлен порог логирования: %1").arg(Korb::logThreshold));
    if (!writePidFile())
        return false;
    KLOG(this, 1, tr("инициализация завершена"));
    if (KorbRdvStreamerTcp *tcp = m_assembly->createTcpClient())
        connect(tcp, &QObject::destroyed, this, &KorbRdvStreamer::del);
    // The device connection waits in a nested event loop, whose events may
    // delete this object: nothing of it is touched after that.
    const QPointer<KorbRdvStreamer> self(this);
    if (!createConnect() || !self)
        return false;
    KLOG(this, 1, tr("установлен интервал отправки: %1").arg(Korb::sendIntervalMs));
    m_wakeUpper->start();
    iniR(QString());
    return true;
}

bool KorbRdvStreamer::createConnect()
{
    const QPointer<KorbRdvStreamer> self(this);
    if (m_assembly->createConnect() || !self)
        return self;
    KLOG(this, -1, tr("init() завершено с ошибкой"));
    m_fatal = true;
    QTimer::singleShot(1, this, &KorbRdvStreamer::halt);
    return false;
}

void KorbRdvStreamer::pause()
{
    m_assembly->pause();
    QFile::remove(pidFilePath());
}

void KorbRdvStreamer::stopSequence(const char *function, const QString &firstText)
{
    // The lines are those of halt() or end(), and name it.
    const auto say = [this, function](const QString &text) {
        if (Korb::logAdmits(1))
            Korb::log(this, __FILE__, __LINE__, function, text, 1, false);
    };
    say(separator('-'));
    say(firstText);
    KorbLoggerLight *logger = KorbLoggerLight::instance();
    if (logger->hasAccumulated()) {
        say(tr("сбросить в лог накопившиеся сообщения"));
        say(separator('-'));
        logger->flushAccumulated();
        say(separator('-'));
        say(tr("фильтр сообщений сброшен"));
    }
    logger->resetFilter();
    // A timer of an object being destroyed never fires and would be left
    // behind when the event loop has already ended.
    if (!m_destroying)
        QTimer::singleShot(StopStepMs, this, &KorbRdvStreamer::final);
}

void KorbRdvStreamer::halt()
{
    (void)children(); // a snapshot taken and left alone
    stopSequence(__func__, tr("приступил к останову приложения"));
    KLOG(this, 1, tr("к останову приложения готов"));
}

void KorbRdvStreamer::end()
{
    stopSequence(__func__, tr("приступил к останову постов"));
    KLOG(this, -1, QString(54, QLatin1Char('#')));
    QTimer::singleShot(StopStepMs, this, &KorbRdvStreamer::final);
    KLOG(this, 1, tr("завершения работы постов окончено"));
}

void KorbRdvStreamer::restart()
{
    end();
    init();
}

void KorbRdvStreamer::final()
{
    KLOG(this, 1, tr("остановка приложения"));
    if (m_fatal) {
        // A start-up that cannot serve ends with a failure status.
        QTimer::singleShot(StopStepMs, this, [] { QCoreApplication::exit(1); });
        return;
    }
    QTimer::singleShot(StopStepMs, this, &KorbRdvStreamer::finished);
}

void KorbRdvStreamer::slotTimerOneSecond()
{
    // Only wakes the event loop once a second.
}

void KorbRdvStreamer::del(QObject *object)
{
    if (!object)
        return;
    const QString name = object->objectName().isEmpty()
                             ? QString::fromLatin1(object->metaObject()->className())
                             : object->objectName();
    KLOG(this, 5, tr("удален объект '%1'").arg(name));
    if (object == m_wakeUpper)
        m_wakeUpper = nullptr;
}

void KorbRdvStreamer::iniR(const QString &path)
{
    if (m_readingSuppressed)
        return;
    const QString etc = Korb::appDir() + QStringLiteral("/../etc");
    if (!Korb::setCurrentDir(etc))
        return;
    KorbLoggerLight::instance()->resetFilter();
    KLOG(this, 1, separator('~'));
    KLOG(this, 1,
         path.isEmpty() ? tr("считываются локальные ip-адреса и файл конфигурации")
                        : tr("конфигурационный файл был изменен"));
    const QString file = path.isEmpty() ? options().configFile : path;
    {
        QSettings settings(file, QSettings::IniFormat);
        settings.setIniCodec(QTextCodec::codecForName("System"));
        // The group is reserved for the device domains of a later version.
        settings.beginGroup(QStringLiteral("domains"));
        settings.endGroup();
        settings.sync();
    }
    // Deliberate pause that keeps the application responsive. Its events
    // may delete this object; then the reading ends at once.
    if (!waitResponsively(this, ConfigSettleMs)) {
        Korb::setCurrentDir(Korb::appDir());
        return;
    }
    if (!m_watcher) {
        m_watcher = new QFileSystemWatcher(this);
        m_watcher->addPath(file);
        connect(m_watcher, &QFileSystemWatcher::fileChanged, this, &KorbRdvStreamer::iniR);
    }
    Korb::setCurrentDir(Korb::appDir());
    KLOG(this, 1, separator('~'));
}

void KorbRdvStreamer::qExit(QObject *)
{
    exitOnHandledSignal();
}

void KorbRdvStreamer::exitOnHandledSignal()
{
    if (Korb::lastHandledSignal != 0)
        std::exit(Korb::lastHandledSignal);
}
