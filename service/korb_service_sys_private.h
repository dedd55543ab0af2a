#pragma once

#include <QByteArray>
#include <QHash>
#include <QObject>
#include <QString>

class KorbServiceBase;
class KorbUnixServerSocket;
class QTcpSocket;

// The service process's end of the control channel: listens on the
// instance's socket, reads CR LF terminated commands and answers each with
// "true" or "false".
class KorbServiceSysPrivate : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY(KorbServiceSysPrivate)

public:
    // Commands are single short words; a peer that sends more than this
    // without a line end is not a management client and is cut off.
    static constexpr int MaxPendingCommandBytes = 4096;
    // How long an answer may take to leave.
    static constexpr int AnswerWriteWaitMs = 3000;

    explicit KorbServiceSysPrivate(KorbServiceBase *service, QObject *parent = nullptr);
    ~KorbServiceSysPrivate() override;

    // Starts listening on `path` (replacing a stale socket file).
    bool listen(const QString &path);
    QString errorText() const;

    // Acts on every complete command at the front of `buffer`, removing it
    // with its line end, and returns the answers back to back. Stops after
    // an accepted "terminate" (setting `terminate`): what follows it is
    // never looked at.
    QByteArray takeCommands(QByteArray *buffer, bool *terminate);

private slots:
    void slotNewConnection();
    void slotReady();
    void slotClosed();

private:
    // Acts on one command; returns the answer. `terminate` is set when the
    // service is to stop once the answer is out.
    QByteArray handleCommand(const QByteArray &command, bool *terminate);

    KorbServiceBase *m_service;
    KorbUnixServerSocket *m_server;
    QHash<QTcpSocket *, QByteArray> m_buffers;
};
