#include <Poco/Exception.h>
#include <Poco/Util/Application.h>
#include <malloc.h>

#include <iostream>

#include "media_server/IPCService/ProtocolProcess/Public/Public_SubProcess.h"

namespace {

/// Memory blocks of at least this size in bytes go back to the system when they are freed. Left to itself the C
/// library raises the size as it sees large blocks, and keeps the memory of a page for good.
constexpr int RETURNED_BLOCK_SIZE = 256 * 1024;

}  // namespace

int main(int argc, char** argv)
{
    ::mallopt(M_MMAP_THRESHOLD, RETURNED_BLOCK_SIZE);  // NOLINT(concurrency-mt-unsafe): there is no other thread yet
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
