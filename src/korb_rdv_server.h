#pragma once

#include "korb_version.h"
#include "src/korb_rdv_assembly.h"

#include <QObject>
#include <QSharedMemory>
#include <QString>
#include <QStringList>

class QFileSystemWatcher;
class QTimer;
class WebSocketServer;

// The one application object of the daemon: reads the application's own
// command line, has the relay put together from it, and runs the start-up
// and shut-down sequence.
class KorbRdvStreamer : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY(KorbRdvStreamer)

public:
    static constexpr const char *Version = KORB_VERSION;
    static constexpr const char *DefaultInstanceName = "Korb.RDV2";

    // `underService` tells that the service framework runs the object, as
    // the instance `serviceName` (DefaultInstanceName when empty);
    // `arguments` is the process's command line (tests pass their own).
    explicit KorbRdvStreamer(QObject *parent, bool underService = false,
                             const QStringList &arguments = QStringList(),
                             const QString &serviceName = QString());
    ~KorbRdvStreamer() override;

    // After a handled signal, ends the process with the signal's number.
    static void exitOnHandledSignal();

    // Re-arms the TCP clients and opens the UDP receiver when both ports are set.
    bool createConnect();
    // Service pause: stops the TCP clients and removes the pid file.
    void pause();

    // What the command line settled, and the relay made from it.
    const KorbRdvOptions &options() const { return m_assembly->options(); }
    KorbRdvAssembly *assembly() const { return m_assembly; }
    WebSocketServer *server() const { return m_assembly->server(); }
    qint8 serviceFlag() const { return m_serviceFlag; }
    QString label() const;
    QString pidFilePath();

signals:
    void finished();

public slots:
    void halt();
    bool init();
    void end();
    void restart();
    void final();
    QString tempPath();
    void all_start();
    void iniR(const QString &path);
    void slotTimerOneSecond();
    void del(QObject *object);
    void qExit(QObject *object);

private:
    bool takeInstanceLock(quint16 port);
    // The common part of halt() and end(), logged in the name of `function`.
    void stopSequence(const char *function, const QString &firstText);
    void writeBanner();
    bool writePidFile();

    qint8 m_serviceFlag = 0;
    QString m_serviceName;
    bool m_readingSuppressed = false;
    bool m_fatal = false;
    bool m_destroying = false;
    QTimer *m_wakeUpper = nullptr;
    KorbRdvAssembly *m_assembly = nullptr;
    QSharedMemory m_lock;
    QFileSystemWatcher *m_watcher = nullptr;
};
