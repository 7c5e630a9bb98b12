#ifndef FUZZ_PLAYED_PLATFORM_H
#define FUZZ_PLAYED_PLATFORM_H

#include <deque>
#include <string>
#include <vector>

/// The remote platform, without network and TLS: the service's TLS sockets end here (played_platform.cpp has the
/// socket functions of the TLS library that the service calls).
class PlayedPlatform
{
public:
    /// How a connection ends once its response has been read.
    enum class End { Closed, ClosedWithoutFarewell, Reset, Silent };

    static PlayedPlatform& instance();

    /// The response on each connection, in their order. When there is none left, connecting is refused.
    std::deque<std::string> responses;

    /// Bytes that each read gives at most, one after the other and then again; 0: nothing yet, and then 1. Empty: as
    /// many as fit.
    std::string fragments;

    End end = End::Closed;

    /// The bytes that came in on each connection.
    std::vector<std::string> requests;

    void begin();

    /// Whether a wait for a descriptor concerns the present connection.
    bool owns(int descriptor) const { return descriptor == m_descriptor; }
    /// Whether the present connection can be read (or written, as events say).
    bool isReady(short events) const;

    // For the socket functions.
    int connect();
    int send(const char* bytes, int length);
    int receive(char* buffer, int length);

private:
    PlayedPlatform();

    int m_descriptor;  ///< stands for every connection
    std::string m_response;
    std::size_t m_read = 0;
    std::size_t m_fragment = 0;
    bool m_waited = false;  ///< whether the present fragment was waited for
};

#endif
