#pragma once

// A service that only writes down the operations its control channel calls.
#include "service/korb_service_base.h"

#include <QStringList>

class RecordingService : public KorbServiceBase
{
public:
    explicit RecordingService(int flags = 0) : KorbServiceBase(0, nullptr, QStringLiteral("t"))
    {
        setServiceFlags(flags);
    }
    QStringList calls;

protected:
    void start() override {}
    void stop() override { calls << QStringLiteral("stop"); }
    void pause() override { calls << QStringLiteral("pause"); }
    void resume() override { calls << QStringLiteral("resume"); }
    void processCommand(int code) override { calls << QStringLiteral("command %1").arg(code); }
    void createApplication(int &, char **) override {}
    int executeApplication() override { return 0; }
};
