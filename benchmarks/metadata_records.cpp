/*
 * Sends one record again and again through the receive task to one observer, or through the JSON parser alone.
 *
 * usage: metadata_records task|parser FOLDER RECORD COUNT
 *
 * FOLDER plays the event cache (preload camera_devices): the record's buffer is written there. RECORD is a file with
 * the JSON text. Prints the nanoseconds that all records took.
 */
#include <Poco/JSON/Parser.h>
#include <Poco/Observer.h>
#include <Poco/Semaphore.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <thread>

#include "media_server/IPCService/ProtocolProcess/Public/MetaDataNotification.h"
#include "media_server/IPCService/ProtocolProcess/Public/Public_MetaDataRecvTask.h"
#include "public/utils/alg_utils/utils_srvfs_eventcache_wire.h"

namespace {

using IPCService::MetaDataGW::MetaDataNotification;
using IPCService::ProtocalProcess::Public_MetaDataRecvTask;

constexpr std::uint32_t BUFFER = 1;

class RecordCounter
{
public:
    explicit RecordCounter(int expected) : m_left(expected), m_all(0, 1) {}

    void take(MetaDataNotification* pNotification)
    {
        pNotification->release();
        if (--m_left == 0) {
            m_all.set();
        }
    }

    void waitForAll() { m_all.wait(); }

private:
    int m_left;
    Poco::Semaphore m_all;
};

/// Writes the buffer of a record. @return bytes of the buffer
std::uint32_t writeBuffer(const std::string& folder, const std::string& text)
{
    EventCacheWire::BlockHeader header = {};
    header.dataLength = static_cast<std::uint32_t>(text.size() + 1);
    std::ofstream file(folder + "/" + std::to_string(BUFFER), std::ios::binary);
    file.write(reinterpret_cast<const char*>(&header), sizeof(header));
    file.write(text.c_str(), static_cast<std::streamsize>(header.dataLength));
    return static_cast<std::uint32_t>(sizeof(header)) + header.dataLength;
}

/// A notification of the buffer, as the event node has it.
std::string notification(std::uint32_t bufferLength)
{
    EventCacheWire::NotificationHead head = {};
    head.status = EventCacheWire::STATUS_SUCCESS;
    head.descriptorOffset = sizeof(head);
    const EventCacheWire::BufferDescriptor descriptor = {BUFFER, 0, bufferLength, 0};
    std::string bytes(reinterpret_cast<const char*>(&head), sizeof(head));
    return bytes.append(reinterpret_cast<const char*>(&descriptor), sizeof(descriptor));
}

void throughTask(const std::string& folder, const std::string& text, int count)
{
    int node[2] = {};
    ::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, node);
    EventCacheHndl handle = {node[0], ::open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC), "benchmark"};
    const std::string bytes = notification(writeBuffer(folder, text));
    RecordCounter counter(count);
    Public_MetaDataRecvTask task(&handle);
    task.m_notificationCenter.addObserver(
        Poco::Observer<RecordCounter, MetaDataNotification>(counter, &RecordCounter::take));
    std::thread thread([&task] { task.runTask(); });
    for (int i = 0; i < count; ++i) {
        [[maybe_unused]] const ssize_t written = ::write(node[1], bytes.data(), bytes.size());
    }
    counter.waitForAll();
    task.interrupt();
    thread.join();
}

}  // namespace

/// Known by its name outside, like the task's runTask.
__attribute__((noinline)) void parserAlone(const std::string& text, int count);

void parserAlone(const std::string& text, int count)
{
    for (int i = 0; i < count; ++i) {
        Poco::JSON::Parser().parse(text);
    }
}

int main(int argc, char** argv)
{
    if (argc != 5) {
        return 2;
    }
    std::ifstream file(argv[3], std::ios::binary);
    const std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    const int count = std::stoi(argv[4]);
    const auto begin = std::chrono::steady_clock::now();
    if (std::strcmp(argv[1], "task") == 0) {
        throughTask(argv[2], text, count);
    } else {
        // On a thread, as the task: memory costs a program of several threads more than one of a single thread.
        std::thread([&text, count] { parserAlone(text, count); }).join();
    }
    std::cout << std::chrono::nanoseconds(std::chrono::steady_clock::now() - begin).count() << std::endl;
    return 0;
}
