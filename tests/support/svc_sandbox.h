#pragma once

#include <QByteArray>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

// The outcome of one run of a program; the exit code as the program returned
// it (-1 and -4, not 255 and 252), and -1000 unless it ended normally in time.
struct SvcRun
{
    bool finished = false;
    int exitCode = -1000;
    QByteArray out;
    QByteArray err;
};

// Runs `program` to its end, killing it when `timeoutMs` runs out.
SvcRun svcRun(const QString &program, const QStringList &arguments,
              const QProcessEnvironment &environment = QProcessEnvironment::systemEnvironment(),
              int timeoutMs = 30000);

// Runs programs in a private mount namespace where /etc is an overlay whose
// writes land here and /usr/lib/systemd/system is an empty directory, so the
// machine's registry, units and init scripts are never touched.
class SvcSandbox
{
    Q_DISABLE_COPY(SvcSandbox)

public:
    SvcSandbox();

    // Empty when namespaces and overlay mounts work here, else why not.
    static QString unavailableReason();

    // What the sandboxed /etc received (the overlay's upper layer).
    QString etcDir() const { return m_dir.path() + QStringLiteral("/upper"); }
    QString unitDir() const { return m_dir.path() + QStringLiteral("/unit"); }
    QString registryPath() const { return etcDir() + QStringLiteral("/KorbService.conf"); }
    void writeRegistry(const QByteArray &ini);

    // `setup` is shell text run inside the namespace after the mounts.
    SvcRun run(const QString &program, const QStringList &arguments,
               const QProcessEnvironment &environment = QProcessEnvironment::systemEnvironment(),
               const QString &setup = QString()) const;

private:
    QTemporaryDir m_dir;
};
