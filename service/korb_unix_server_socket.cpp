#include "service/korb_unix_server_socket.h"

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
    const QByteArray encoded = path.toLocal8Bit();
    sockaddr_un address;
    std::memset(&address, 0, sizeof address);
    if (encoded.isEmpty() || size_t(encoded.size()) >= sizeof address.sun_path) {
        m_error = QStringLiteral("socket path too long: %1").arg(path);
        return false;
    }
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, encoded.constData(), size_t(encoded.size()));

    ::unlink(encoded.constData());
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        m_error = QString::fromLocal8Bit(std::strerror(errno));
        return false;
    }
    if (::bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) < 0 ||
        ::listen(fd, ListenBacklog) < 0) {
        m_error = QString::fromLocal8Bit(std::strerror(errno));
        ::close(fd);
        ::unlink(encoded.constData());
        return false;
    }
    if (!setSocketDescriptor(fd)) {
        m_error = QTcpServer::errorString();
        ::close(fd);
        ::unlink(encoded.constData());
        return false;
    }
    m_path = path;
    m_error.clear();
    return true;
}

QString KorbUnixServerSocket::path() const
{
    return m_path;
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
