#include "service/korb_unix_socket.h"

#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

KorbUnixSocket::KorbUnixSocket(QObject *parent) : QTcpSocket(parent) {}

KorbUnixSocket::~KorbUnixSocket() = default;

bool KorbUnixSocket::fillAddress(const QString &path, sockaddr_un *address)
{
    const QByteArray encoded = path.toLocal8Bit();
    std::memset(address, 0, sizeof *address);
    if (encoded.isEmpty() || size_t(encoded.size()) >= sizeof address->sun_path)
        return false;
    address->sun_family = AF_UNIX;
    std::memcpy(address->sun_path, encoded.constData(), size_t(encoded.size()));
    return true;
}

bool KorbUnixSocket::connectTo(const QString &path)
{
    sockaddr_un address;
    if (!fillAddress(path, &address))
        return false;
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return false;
    int rc;
    do {
        rc = ::connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address);
    } while (rc < 0 && errno == EINTR);
    if (rc < 0) {
        const int saved = errno;
        ::close(fd);
        errno = saved;
        return false;
    }
    if (!setSocketDescriptor(fd, QAbstractSocket::ConnectedState, QIODevice::ReadWrite)) {
        ::close(fd);
        return false;
    }
    return true;
}
