#include <Poco/Exception.h>
#include <Poco/Util/Application.h>

#include <iostream>

#include "media_server/IPCService/ProtocolProcess/Public/Public_SubProcess.h"

int main(int argc, char** argv)
{
    try {
        IPCService::ProtocalProcess::Public_SubProcess process;
        const int exitCode = process.run(argc, argv);
        process.rethrowStartFailure();
        return exitCode;
    } catch (const Poco::Exception& exc) {
        std::cerr << exc.displayText() << std::endl;
        return Poco::Util::Application::EXIT_SOFTWARE;
    }
}
