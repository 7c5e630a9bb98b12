#ifndef CUSTOM_SUBSYSTEM_CUSTOM_RESPONSEREADER_H
#define CUSTOM_SUBSYSTEM_CUSTOM_RESPONSEREADER_H

#include <Poco/Net/HTTPResponse.h>

#include <cstddef>
#include <functional>
#include <string>

namespace IPCService {
namespace MetaDataGW {

/// Puts bytes of a connection into a buffer, at least one. @return how many; 0 when the peer has announced the end
using ByteSource = std::function<std::size_t(char* buffer, std::size_t size)>;

/// Reads one response, and takes nothing for whole that is not. Interim answers are passed over.
///
/// The library parses heads, but is not asked where a response ends: it takes a connection that ends for the end of
/// whatever it reads, and a chunk size that is no number for the last chunk.
///
/// @param response  set to the status and headers of the answer
/// @return its body
/// @throws Poco::Exception when it is not whole, no HTTP, or larger than any page; and whatever the source throws
std::string readResponse(const ByteSource& source, Poco::Net::HTTPResponse& response);

}  // namespace MetaDataGW
}  // namespace IPCService

#endif
