#pragma once

#include <QString>
#include <QTcpServer>

// A listening unix-domain stream socket. Accepted connections arrive as
// QTcpSockets through the usual QTcpServer new-connection handling.
class KorbUnixServerSocket : public QTcpServer
{
    Q_OBJECT
    Q_DISABLE_COPY(KorbUnixServerSocket)

public:
    // Pending connections the kernel queues before they are accepted.
    static constexpr int ListenBacklog = 16;

    explicit KorbUnixServerSocket(QObject *parent = nullptr);
    ~KorbUnixServerSocket() override;

    // Removes whatever file lies at `path` (a stale socket of a crashed
    // instance), binds a new socket there and listens. False on failure.
    bool setPath(const QString &path);

    // Stops listening and removes the socket file.
    void close();
    QString errorText() const;

private:
    QString m_path;
    QString m_error;
};
