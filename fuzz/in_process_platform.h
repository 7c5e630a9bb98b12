#ifndef FUZZ_IN_PROCESS_PLATFORM_H
#define FUZZ_IN_PROCESS_PLATFORM_H

#include <cstddef>
#include <string>
#include <vector>

#include "support/played_platform.h"

/// Carries the played platform's connections without network and TLS: the service's TLS sockets end here
/// (in_process_platform.cpp has the socket functions of the TLS library that the service calls).
class InProcessPlatform : public PlayedConnection
{
public:
    static InProcessPlatform& instance();

    /// Has the next so many connections answered by a script, one request each; further ones are refused.
    void serve(std::size_t connections, PlatformScript script);

    /// Bytes that each read gives at most, one after the other and then again; 0: nothing yet, and then 1. Empty: as
    /// many as fit.
    std::string fragments;

    /// The bytes that came in on each connection.
    std::vector<std::string> requests;

    /// Forgets everything.
    void begin();

    /// Whether a wait for a descriptor concerns the present connection.
    bool owns(int descriptor) const { return descriptor == m_descriptor; }
    /// Whether the present connection can be read (or written, as events say).
    bool isReady(short events);

    // For the script.
    bool send(const std::string& bytes) override;
    void hangUp() override { m_end = End::ClosedWithoutNotice; }
    void reset() override { m_end = End::Reset; }
    void waitUntilClientLeaves() override { m_end = End::Silent; }

    // For the socket functions.
    int connect();
    int take(const char* bytes, int length);
    int give(char* buffer, int length);

private:
    enum class End { Closed, ClosedWithoutNotice, Reset, Silent };

    InProcessPlatform();
    void answer();
    int giveEnd() const;

    int m_descriptor;  ///< stands for every connection
    PlatformScript m_script;
    std::size_t m_connections = 0;
    bool m_answered = false;  ///< whether the script has run for the present connection
    std::string m_response;
    End m_end = End::Closed;  ///< how the connection ends once the response has been read
    std::size_t m_read = 0;
    std::size_t m_fragment = 0;
    bool m_waited = false;  ///< whether the present fragment was waited for
};

#endif
