#pragma once

#include <QByteArray>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

// The outcome of one run of a program.
struct SvcRun
{
    bool finished = false;
    int exitCode = -1000;
    QByteArray out;
    QByteArray err;
};

// Runs programs inside a private mount namespace in which /etc is an overlay
// whose writes land in a temporary directory, and /usr/lib/systemd/system is
// an empty temporary directory. The machine's own registry, unit files and
// init scripts are never touched, and the rest of /etc stays usable.
class SvcSandbox
{
    Q_DISABLE_COPY(SvcSandbox)

public:
    SvcSandbox();
    ~SvcSandbox();

    // Empty when namespaces and overlay mounts work here, else why not.
    static QString unavailableReason();

    // What the sandboxed /etc received (the overlay's upper layer).
    QString etcDir() const;
    // What the sandboxed /usr/lib/systemd/system holds.
    QString unitDir() const;
    QString registryPath() const;
    void writeRegistry(const QByteArray &ini);
    QByteArray readRegistry() const;

    // Runs `program` with `arguments` inside the sandbox. `setup` is shell
    // text run inside the namespace after the mounts, before the program.
    SvcRun run(const QString &program, const QStringList &arguments,
               const QProcessEnvironment &environment = QProcessEnvironment::systemEnvironment(),
               const QString &setup = QString(), int timeoutMs = 30000) const;

private:
    QTemporaryDir m_dir;
};
