#pragma once

#include "service/korb_service_base.h"

// The service framework bound to an application class (QCoreApplication for
// the daemon): the framework creates the application when the service or the
// foreground run begins and runs its event loop.
template <typename Application> class KorbServiceApp : public KorbServiceBase
{
    Q_DISABLE_COPY(KorbServiceApp)

public:
    KorbServiceApp(int argc, char **argv, const QString &name) : KorbServiceBase(argc, argv, name) {}
    ~KorbServiceApp() override { delete m_application; }

protected:
    Application *application() const { return m_application; }

    void createApplication(int &argc, char **argv) override { m_application = new Application(argc, argv); }

    int executeApplication() override { return Application::exec(); }

private:
    Application *m_application = nullptr;
};
