#include "service/korb_unix_server_socket.h"

#include "service/korb_unix_socket.h"

#include <QFile>

#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

KorbUnixServerSocket::KorbUnixServerSocket(QObject *parent) : QTcpServer(parent) {}

KorbUnixServerSocket::~KorbUnixServerSocket()
{
    close();
}

bool KorbUnixServerSocket::setPath(const QString &path)
{
    close();
    sockaddr_un address;
    if (!KorbUnixSocket::fillAddress(path, &address)) {
        m_error = QStringLiteral("socket path too long: %1").arg(path);
        return false;
    }
    ::unlink(address.sun_path);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        m_error = QString::fromLocal8Bit(std::strerror(errno));
        return false;
    }
    if (::bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) < 0 ||
        ::listen(fd, ListenBacklog) < 0) {
        m_error = QString::fromLocal8Bit(std::strerror(errno));
        ::close(fd);
        ::unlink(address.sun_path);
        return false;
    }
    if (!setSocketDescriptor(fd)) {
        m_error = QTcpServer::errorString();
        ::close(fd);
        ::unlink(address.sun_path);
        return false;
    }
    m_path = path;
    m_error.clear();
    return true;
}

void KorbUnixServerSocket::close()
{
    QTcpServer::close();
    if (!m_path.isEmpty()) {
        QFile::remove(m_path);
        m_path.clear();
    }
}

QString KorbUnixServerSocket::errorText() const
{
    return m_error;
}
