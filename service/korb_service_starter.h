#pragma once

#include <QObject>

class KorbServiceBase;

// Calls the service's start() once the application's event loop runs: the
// slot is invoked queued before the loop begins.
class KorbServiceStarter : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY(KorbServiceStarter)

public:
    explicit KorbServiceStarter(KorbServiceBase *service, QObject *parent = nullptr);
    ~KorbServiceStarter() override;

public slots:
    void slotStart();

private:
    KorbServiceBase *m_service;
};
