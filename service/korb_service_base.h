#pragma once

#include <QPointer>
#include <QString>
#include <QStringList>
#include <QVector>

class KorbServiceController;
class KorbServiceStarter;
class KorbServiceSysPrivate;

// The service object of a program that is both a daemon and the tool that
// manages its own service instances. exec() reads the process's command line
// and either performs a management command (help, version, query, install,
// uninstall, start, stop, pause, resume, command code, directory) or runs the
// service; the concrete service supplies the application object and the
// operations that the control channel reaches.
class KorbServiceBase
{
    Q_DISABLE_COPY(KorbServiceBase)

public:
    // An instance name can become a unit file name and a socket path, both of
    // which the system limits; longer names are cut.
    static constexpr int MaxNameLength = 255;

    // Service flag bits.
    enum ServiceFlag { CanBeSuspended = 1, CannotBeStopped = 2 };

    KorbServiceBase(int argc, char **argv, const QString &name);
    virtual ~KorbServiceBase();

    // The dispatch; returns the process exit status (0, -1, -4, or the exit
    // code of the application when the service itself runs).
    int exec();

    QString serviceName() const;
    void setServiceDescription(const QString &description);
    // Bit 1: can be suspended; bit 2: cannot be stopped.
    int serviceFlags() const;
    void setServiceFlags(int flags);
    // 0 = automatic.
    void setStartupType(int type);

    // The framework's message log (syslog): 0 success, 1 error, 2 warning,
    // 3 information.
    void logMessage(const QString &message, int type = 3);

protected:
    virtual void start() = 0;
    // Ends the service; this default quits the event loop at once. A service
    // with a stop sequence of its own runs it and quits when it is done.
    virtual void stop();
    virtual void pause();
    virtual void resume();
    virtual void processCommand(int code);
    virtual void createApplication(int &argc, char **argv) = 0;
    virtual int executeApplication() = 0;

private:
    friend class KorbServiceStarter;
    friend class KorbServiceSysPrivate;

    int runService(bool asService, const QStringList &arguments);
    int query(const QString &argument);
    int startInstance();
    int defaultStartOrRun();
    void printHelp() const;
    void printVersion() const;

    QString m_name;
    QStringList m_args;
    QString m_description;
    int m_flags = 0;
    int m_startupType = 0;
    KorbServiceController *m_controller = nullptr;
    // Owned by the application object while the service runs.
    QPointer<KorbServiceSysPrivate> m_sys;

    // The application object keeps references to argc and argv for its whole
    // life, so runService keeps them here.
    int m_runArgc = 0;
    QVector<QByteArray> m_runArgData;
    QVector<char *> m_runArgv;
};
