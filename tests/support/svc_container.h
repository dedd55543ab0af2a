#pragma once

#include "support/svc_sandbox.h"

// A throwaway container whose process 1 is a real systemd (the container tool in the shared folder beside the
// checkout), with one host directory bound read-only into it: the container mounts its own /tmp and sees only
// what the host had when it booted. Stopped however the test leaves, a failed boot included.
class SvcContainer
{
    Q_DISABLE_COPY(SvcContainer)

public:
    SvcContainer(const QString &stem, const QString &hostDir, const QString &containerDir);
    ~SvcContainer();

    // Empty when root, the tool and systemd-nspawn are all here, else why not.
    static QString unavailableReason();
    // Empty once it has booted, else the tool's own account of the failure.
    QString boot();
    SvcRun exec(const QStringList &command) const;

private:
    SvcRun runTool(const QStringList &arguments, int timeoutMs) const;

    QString m_name;
    QString m_bind;
};
