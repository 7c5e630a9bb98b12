#include <Poco/Exception.h>
#include <Poco/Util/Application.h>
#include <malloc.h>

#include <iostream>

#include "media_server/IPCService/ProtocolProcess/Public/Public_SubProcess.h"

namespace {

/// Memory blocks of at least this size in bytes go back to the system when they are freed. Left to itself the C
/// library raises the size as it sees large blocks, and keeps the memory of a page for good.
constexpr int RETURNED_BLOCK_SIZE = 256 * 1024;

/// Does the work; tells why the service cannot be. @return the exit code
template <typename Work>
int guarded(const Work& work)
{
    try {
        return work();
    } catch (const Poco::Exception& exc) {
        std::cerr << exc.displayText() << std::endl;
        return Poco::Util::Application::EXIT_SOFTWARE;
    }
}

}  // namespace

int main(int argc, char** argv)
{
    ::mallopt(M_MMAP_THRESHOLD, RETURNED_BLOCK_SIZE);  // NOLINT(concurrency-mt-unsafe): there is no other thread yet
    return guarded([argc, argv] {
        IPCService::ProtocalProcess::Public_SubProcess process;
        // Told before the application's end, which may be the end of the process.
        return guarded([argc, argv, &process] {
            const int exitCode = process.run(argc, argv);
            process.rethrowStartFailure();
            return exitCode;
        });
    });
}
