#pragma once

#include <QLocalSocket>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

// The real daemon as a child process on a free loopback port, with its own
// log directory: in the foreground (-e), or as the service process of its
// instance (KORBSERVICE_RUN=1, control channel open). Stopped on destruction.
class StreamerProcess
{
public:
    StreamerProcess();
    ~StreamerProcess();

    // Starts `KorbRdv_streamer -e -n NAME -p PORT -ld LOGDIR <extra>` and waits
    // until the WebSocket port accepts connections.
    bool start(const QStringList &extra, QString *why);
    // The same as the service process: `KorbRdv_streamer -n NAME -p PORT -ld
    // LOGDIR <extra>` with KORBSERVICE_RUN=1.
    bool startService(const QStringList &extra, QString *why);
    // What a sanitizer reported in a service process, empty when nothing.
    QString sanitizerReport() const;
    // The control socket of the instance (its name encodes to itself).
    QString controlSocketPath() const;
    quint16 port() const { return m_port; }
    QString url() const;
    QString logDir() const { return m_dir.filePath(QStringLiteral("logs")); }
    QString name() const { return m_name; }
    // Everything in the day's log file(s).
    QString logText() const;
    QProcess &process() { return m_process; }
    // Sends `signal` and waits for the exit; returns the exit code or -1.
    int stopWith(int signal);

    // A TCP or UDP port on 127.0.0.1 that nobody uses right now.
    static quint16 freeTcpPort();
    static quint16 freeUdpPort();
    // Runs the daemon once with `arguments` and returns {exit code, stdout, stderr}.
    struct Result
    {
        int exitCode = -1;
        QByteArray out;
        QByteArray err;
    };
    static Result run(const QStringList &arguments, int timeoutMs = 15000);

private:
    Q_DISABLE_COPY(StreamerProcess)
    bool launch(const QStringList &mode, const QStringList &extra, const QProcessEnvironment &environment,
                QString *why);

    QTemporaryDir m_dir;
    QProcess m_process;
    quint16 m_port = 0;
    QString m_name;
};

// A client of an instance's control channel on Qt's own local socket,
// independent of the framework's client.
struct ControlClient
{
    bool connectTo(const QString &path);
    // Sends raw bytes and collects answers until `expected` bytes arrived.
    QByteArray exchange(const QByteArray &bytes, int expected);
    QLocalSocket socket;
};
