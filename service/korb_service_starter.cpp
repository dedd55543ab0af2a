#include "service/korb_service_starter.h"

#include "service/korb_service_base.h"

KorbServiceStarter::KorbServiceStarter(KorbServiceBase *service, QObject *parent)
    : QObject(parent), m_service(service)
{
}

KorbServiceStarter::~KorbServiceStarter() = default;

void KorbServiceStarter::slotStart()
{
    if (m_service)
        m_service->start();
}
