#include "support/tiny_tmpfs.h"

#include "support/svc_sandbox.h"

#include <QProcess>
#include <QTemporaryDir>

namespace {
// The smallest tmpfs, which a file of zeros then fills to the last byte.
constexpr int FullKib = 4;

QString script(const QMap<QString, int> &kib)
{
    QString text;
    for (auto it = kib.cbegin(); it != kib.cend(); ++it) {
        text += QStringLiteral("mount -t tmpfs -o size=%1k korbtiny '%2'\n")
                    .arg(it.value() > 0 ? it.value() : FullKib)
                    .arg(it.key());
        if (it.value() == 0)
            text += QStringLiteral("cat /dev/zero > '%1/full' 2>/dev/null || true\n").arg(it.key());
    }
    return text;
}
} // namespace

namespace TinyTmpfs {

QString unavailableReason()
{
    static const QString reason = [] {
        QTemporaryDir dir;
        // The probe succeeds when a write to the full tmpfs fails.
        const SvcRun run =
            svcRun(QStringLiteral("unshare"), privateMounts(script({{dir.path(), 0}}), "/bin/sh",
                                                            {"-c", "! echo x >> \"$0\"/full", dir.path()}));
        if (run.exitCode != 0)
            return QStringLiteral("no private mount namespace with a tmpfs of its own here: ") +
                   run.err.trimmed();
        return QString();
    }();
    return reason;
}

void start(QProcess &process, const QMap<QString, int> &kib, const QString &program,
           const QStringList &arguments)
{
    process.start(QStringLiteral("unshare"), privateMounts(script(kib), program, arguments));
}

QString seenBy(const QProcess &process, const QString &path)
{
    return QStringLiteral("/proc/%1/root%2").arg(process.processId()).arg(path);
}

} // namespace TinyTmpfs
