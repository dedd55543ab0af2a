#pragma once

#include <QList>
#include <QString>
#include <QStringList>

// One row of the status listing of installed instances.
struct KorbServiceStatus
{
    QString name;
    // 0 not running (or unknown), 1 running, 4 failed.
    int state = 0;
    // Enablement and activity, 17 characters when unknown.
    QString statusText;
    // The registered program path and its registered arguments.
    QString command;
};

// The management side of one service instance: its registry entry, its
// systemd unit and init script, and its control channel. Every operation
// acts on the instance name given at construction.
class KorbServiceController
{
    Q_DISABLE_COPY(KorbServiceController)

public:
    // How long a command over the control channel waits for its answer.
    static constexpr int CommandAnswerWaitMs = 5000;
    // Waits of the helper tools of installation (chmod, ln): the start may
    // take long on a loaded machine, the result is deliberately not waited for.
    static constexpr int ToolStartWaitMs = 30000;
    static constexpr int ToolFinishWaitMs = 333;
    // Waits of the SELinux labelling tool.
    static constexpr int ChconStartWaitMs = 3000;
    static constexpr int ChconFinishWaitMs = 5000;

    explicit KorbServiceController(const QString &name);
    ~KorbServiceController();

    // What install records and writes besides the account, password and
    // argument string: the description, whether the instance starts at boot,
    // and the full argument list of the installing process.
    void setDescription(const QString &description);
    void setAutomaticStartup(bool automatic);
    void setProcessArguments(const QStringList &arguments);

    // Registry accessors (each opens the registry file once).
    bool isInstalled() const;
    QString serviceFilePath() const;
    QString serviceArguments() const;
    QString serviceDescription() const;
    int startupType() const;

    // systemd's is-active test where a unit exists, else whether the control
    // socket accepts a connection.
    bool isRunning() const;

    bool install(const QString &account, const QString &password, const QString &arguments);
    bool uninstall();
    // Through systemctl where a unit file exists, else the registered
    // program, detached, marked as the service process.
    bool start();
    // Through systemctl where the unit is active, else "terminate" over the
    // control channel.
    bool stop();
    bool pause();
    bool resume();
    bool sendCommand(int code);
    // Sends one text command over the control channel; true only when the
    // answer is exactly "true".
    bool sendCommand(const QString &command);

    // The status rows of the registered instances, in name order; without
    // `all` only those whose registered program is `programPath`.
    static QList<KorbServiceStatus> query(const QString &programPath, bool all);

    // The absolute path of the running program file.
    static QString programFilePath();
    // The directory above the one holding the program file.
    static QString installDirectory(const QString &programPath);
    static QString socketPath(const QString &name);

private:
    static KorbServiceStatus status(const QString &name, const QString &path, const QString &arguments);
    // Lower case, then only [a-z0-9] (and [A-Z] with allowUpper) kept.
    static QString encodeName(const QString &name, bool allowUpper);
    // Login name of the real user, from the user database.
    static QString loginName();
    // Fills %0 to %7 of `text` in one pass; other '%' sequences stay.
    static QString fillPlaceholders(const QString &text, const QStringList &values);
    // The unit file for `name`, with the values built as install builds them.
    static QString unitFileText(const QString &name, const QString &description,
                                const QStringList &processArguments, const QString &programPath);
    static QString initScriptText(const QString &name);
    // The installing process's arguments without the program path, the
    // management options and the instance name: "" or " a b c".
    static QString remainingArguments(const QStringList &processArguments, const QString &name);
    static QString pidFilePath(const QString &name);
    // Owner and group of a file, "korb" (the user for the group) when unknown.
    static QString fileUser(const QString &path);
    static QString fileGroup(const QString &path);
    bool writeRegistry(const QString &arguments);
    bool removeFromRegistry();
    void labelForSelinux(const QString &programPath) const;
    // Runs chmod or ln with the short waits of installation.
    static void runTool(const QString &program, const QStringList &arguments);

    QString m_name;
    QString m_description;
    bool m_automaticStartup = true;
    QStringList m_processArguments;
};
