/*
 * The smallest program of the service's kind: a server application that initialises TLS, has two threads that sleep,
 * shows with the command socket that it is there, and waits to be ended. What the service takes beyond it, the service
 * must be worth.
 */
#include <Poco/Net/Context.h>
#include <Poco/Net/DatagramSocket.h>
#include <Poco/Net/NetSSL.h>
#include <Poco/Net/RejectCertificateHandler.h>
#include <Poco/Net/SSLManager.h>
#include <Poco/Util/ServerApplication.h>

#include <condition_variable>
#include <cstring>
#include <iostream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace {

class SmallestServer : public Poco::Util::ServerApplication
{
protected:
    int main(const std::vector<std::string>&) override
    {
        holdStopSignal();
        Poco::Net::initializeSSL();
        const Poco::Net::Context::Ptr context(new Poco::Net::Context(Poco::Net::Context::TLSV1_2_CLIENT_USE, "", "", "",
                                                                     Poco::Net::Context::VERIFY_NONE));
        Poco::Net::SSLManager::instance().initializeClient(nullptr, new Poco::Net::RejectCertificateHandler(false),
                                                           context);
        std::thread first([this] { sleep(); });
        std::thread second([this] { sleep(); });
        bindCommandSocket();
        waitForTerminationRequest();
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_stop = true;
        }
        m_stopped.notify_all();
        first.join();
        second.join();
        Poco::Net::uninitializeSSL();
        return EXIT_OK;
    }

private:
    void sleep()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_stopped.wait(lock, [this] { return m_stop; });
    }

    /// Until the wait for it begins, in all threads: whoever sees the socket may send it before.
    static void holdStopSignal()
    {
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    }

    /// Keeps the descriptor to the end of the process.
    static void bindCommandSocket()
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, "/tmp/HK");
        const int descriptor = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        ::bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    }

    std::mutex m_mutex;
    std::condition_variable m_stopped;
    bool m_stop = false;
};

}  // namespace

POCO_SERVER_MAIN(SmallestServer)
