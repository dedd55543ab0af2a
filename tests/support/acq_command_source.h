#pragma once

#include <QObject>
#include <QString>

namespace AcqTest {

// Stands in for the WebSocket server as the source of client commands.
class CommandSource : public QObject
{
    Q_OBJECT

public:
    explicit CommandSource(QObject *parent = nullptr) : QObject(parent) {}

signals:
    void runCmd(quint16 intervalMs);
    void runCmd(const QString &cmd);
};

} // namespace AcqTest
