#include "support/tiny_tmpfs.h"

#include "support/svc_sandbox.h"

#include <QProcess>
#include <QTemporaryDir>

namespace {
// The smallest tmpfs, which a file of zeros then fills to the last byte.
constexpr int FullKib = 4;

QString script(const QMap<QString, int> &kib)
{
    QString text = QStringLiteral("set -e\n");
    for (auto it = kib.cbegin(); it != kib.cend(); ++it) {
        text += QStringLiteral("mount -t tmpfs -o size=%1k korbtiny '%2'\n")
                    .arg(it.value() > 0 ? it.value() : FullKib)
                    .arg(it.key());
        if (it.value() == 0)
            text += QStringLiteral("cat /dev/zero > '%1/full' 2>/dev/null || true\n").arg(it.key());
    }
    return text + QStringLiteral("exec \"$@\"\n");
}

QStringList command(const QMap<QString, int> &kib, const QString &program, const QStringList &arguments)
{
    return QStringList{"--mount", "--propagation", "private", "/bin/sh", "-c", script(kib), "sh", program} +
           arguments;
}
} // namespace

namespace TinyTmpfs {

QString unavailableReason()
{
    static const QString reason = [] {
        QTemporaryDir dir;
        // The probe succeeds when a write to the full tmpfs fails.
        const SvcRun run =
            svcRun(QStringLiteral("unshare"),
                   command({{dir.path(), 0}}, "/bin/sh", {"-c", "! echo x >> \"$0\"/full", dir.path()}));
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
    process.start(QStringLiteral("unshare"), command(kib, program, arguments));
}

QString seenBy(const QProcess &process, const QString &path)
{
    return QStringLiteral("/proc/%1/root%2").arg(process.processId()).arg(path);
}

} // namespace TinyTmpfs
