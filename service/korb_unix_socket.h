#pragma once

#include <QTcpSocket>

struct sockaddr_un;

// A stream socket connected to a unix-domain socket path. The descriptor is
// handed to QTcpSocket, which then reads and writes it like any stream.
class KorbUnixSocket : public QTcpSocket
{
    Q_OBJECT
    Q_DISABLE_COPY(KorbUnixSocket)

public:
    explicit KorbUnixSocket(QObject *parent = nullptr);
    ~KorbUnixSocket() override;

    // Opens a unix-domain stream connection to `path`; false (and the socket
    // left unconnected) when there is nobody listening there.
    bool connectTo(const QString &path);

    // The address of `path` for both ends of the channel; false when the path
    // is empty or does not fit with its terminating zero (it could then name
    // no socket at all).
    static bool fillAddress(const QString &path, sockaddr_un *address);
};
