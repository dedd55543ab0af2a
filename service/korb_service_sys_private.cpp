#include "service/korb_service_sys_private.h"

#include "logger/korb_log.h"
#include "service/korb_service_base.h"
#include "service/korb_unix_server_socket.h"

#include <QPointer>
#include <QTcpSocket>

KorbServiceSysPrivate::KorbServiceSysPrivate(KorbServiceBase *service, QObject *parent)
    : QObject(parent), m_service(service), m_server(new KorbUnixServerSocket(this))
{
    connect(m_server, &QTcpServer::newConnection, this, &KorbServiceSysPrivate::slotNewConnection);
}

KorbServiceSysPrivate::~KorbServiceSysPrivate()
{
    m_server->close();
}

bool KorbServiceSysPrivate::listen(const QString &path)
{
    return m_server->setPath(path);
}

QString KorbServiceSysPrivate::errorText() const
{
    return m_server->errorText();
}

void KorbServiceSysPrivate::slotNewConnection()
{
    while (QTcpSocket *socket = m_server->nextPendingConnection()) {
        // Qt's own buffer is bounded too, so a flood stays in the kernel.
        socket->setReadBufferSize(MaxPendingCommandBytes + 2);
        m_buffers.insert(socket, QByteArray());
        connect(socket, &QTcpSocket::readyRead, this, &KorbServiceSysPrivate::slotReady);
        connect(socket, &QTcpSocket::disconnected, this, &KorbServiceSysPrivate::slotClosed);
    }
}

void KorbServiceSysPrivate::slotClosed()
{
    auto *socket = qobject_cast<QTcpSocket *>(sender());
    if (!socket)
        return;
    m_buffers.remove(socket);
    socket->deleteLater();
}

void KorbServiceSysPrivate::slotReady()
{
    auto *socket = qobject_cast<QTcpSocket *>(sender());
    if (!socket || !m_buffers.contains(socket))
        return;
    // A command may wait in a nested event loop (resume connects to the
    // device), where the peer can go away and its socket be deleted.
    const QPointer<QTcpSocket> alive(socket);
    // Worked on as a copy: a peer that goes away while its commands run
    // takes its table entry with it.
    QByteArray buffer = m_buffers.value(socket);
    while (socket->bytesAvailable() > 0) {
        // Never take in more than the partial-line limit allows.
        const qint64 room = MaxPendingCommandBytes + 2 - buffer.size();
        if (room <= 0)
            break;
        buffer.append(socket->read(room));

        bool terminate = false;
        const QByteArray answers = takeCommands(&buffer, &terminate);
        if (!alive)
            return;
        if (!answers.isEmpty()) {
            socket->write(answers);
            socket->flush();
            socket->waitForBytesWritten(AnswerWriteWaitMs);
        }
        if (terminate) {
            m_service->stop();
            return;
        }
        if (!m_buffers.contains(socket))
            return;
        if (buffer.size() > MaxPendingCommandBytes) {
            KLOG(this, 1,
                 QStringLiteral("control connection closed: more than %1 bytes without a line end")
                     .arg(MaxPendingCommandBytes));
            m_buffers.remove(socket);
            socket->disconnect(this);
            socket->abort();
            socket->deleteLater();
            return;
        }
    }
    m_buffers.insert(socket, buffer);
}

QByteArray KorbServiceSysPrivate::takeCommands(QByteArray *buffer, bool *terminate)
{
    QByteArray answers;
    *terminate = false;
    int end;
    while (!*terminate && (end = buffer->indexOf("\r\n")) >= 0) {
        const QByteArray command = buffer->left(end);
        buffer->remove(0, end + 2);
        answers += handleCommand(command, terminate);
    }
    return answers;
}

QByteArray KorbServiceSysPrivate::handleCommand(const QByteArray &command, bool *terminate)
{
    const int flags = m_service->serviceFlags();
    if (command == "terminate") {
        if (flags & KorbServiceBase::CannotBeStopped)
            return "false";
        *terminate = true;
        return "true";
    }
    if (command == "pause") {
        if (!(flags & KorbServiceBase::CanBeSuspended))
            return "false";
        m_service->pause();
        return "true";
    }
    if (command == "resume") {
        if (!(flags & KorbServiceBase::CanBeSuspended))
            return "false";
        m_service->resume();
        return "true";
    }
    if (command == "alive")
        return "true";
    if (command.startsWith("num:") && command.size() >= 5) {
        m_service->processCommand(command.mid(4).toInt());
        return "true";
    }
    return "false";
}
