#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

// The framework's one way of running other programs: helper tools (systemctl,
// chcon, chmod, ln) run to their end with fixed waits, and service processes
// started detached.
class KorbChildProcess
{
    Q_DISABLE_COPY(KorbChildProcess)

public:
    // The variable that marks a process as the service process of its
    // instance rather than a management command.
    static constexpr const char *RunVariable = "KORBSERVICE_RUN";
    // How long a child killed after its finish wait is waited for once more.
    static constexpr int KillWaitMs = 1000;

    // What becomes of a child still running when its finish wait is over.
    enum Overrun { Kill, LetRun };

    struct Result
    {
        bool started = false;
        bool finished = false; // ended by itself within the wait
        bool normalExit = false;
        int exitCode = -1;
        QByteArray out;
        QByteArray err;
        // Started, ended normally within the wait, exit code 0.
        bool succeeded() const { return finished && normalExit && exitCode == 0; }
    };

    static Result run(const QString &program, const QStringList &arguments, int startWaitMs, int finishWaitMs,
                      Overrun overrun = Kill);

    // Starts `program` detached, marked by RunVariable as a service process.
    static bool startService(const QString &program, const QStringList &arguments);

private:
    KorbChildProcess() = delete;
};
