#ifndef CUSTOM_SUBSYSTEM_CUSTOM_REQUESTTARGET_H
#define CUSTOM_SUBSYSTEM_CUSTOM_REQUESTTARGET_H

#include <Poco/URI.h>

#include <string>

namespace IPCService {
namespace MetaDataGW {

// How a command's URL becomes the target of a request line, in two steps, of which each escapes what the other leaves:
// "/a%20b%3Fc?q" is kept, and logged, as the path "/a b%3Fc", and is asked for as "/a%20b%3Fc".

/// A URL's path without its escapes, but for "%", "?" and "#": they would mean something else without theirs.
std::string pathOf(const Poco::URI& url);

/// A path as it can stand in a request line: absolute, and with spaces, control characters and whatever is not ASCII
/// escaped.
std::string requestTarget(const std::string& path);

}  // namespace MetaDataGW
}  // namespace IPCService

#endif
