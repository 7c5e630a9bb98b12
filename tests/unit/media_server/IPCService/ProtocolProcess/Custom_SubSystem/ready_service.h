#ifndef TESTS_UNIT_CUSTOM_SUBSYSTEM_READY_SERVICE_H
#define TESTS_UNIT_CUSTOM_SUBSYSTEM_READY_SERVICE_H

#include <fstream>

#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_SubSystem.h"
#include "media_server/IPCService/ProtocolProcess/Public/Public_SubProcess.h"

/** The application and its subsystem after their start-up: TLS is set up and the command loop runs. */
class ReadyService
{
public:
    ReadyService()
    {
        std::ofstream("/tmp/intelligent_ok").put('\n');
        subSystem().initialize(m_app);
    }

    IPCService::MetaDataGW::CustomSubSystem& subSystem() { return m_subSystem; }
    IPCService::ProtocalProcess::Public_SubProcess& app() { return m_app; }

private:
    // The application's end waits for the tasks, which use the subsystem.
    IPCService::MetaDataGW::CustomSubSystem m_subSystem;
    IPCService::ProtocalProcess::Public_SubProcess m_app;
};

#endif
