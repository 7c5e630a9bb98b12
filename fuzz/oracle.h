#ifndef FUZZ_ORACLE_H
#define FUZZ_ORACLE_H

#include <string>

#include "support/requirement.h"

/// What must hold whatever the input was. Independent of the code under test: its own JSON and HTTP are not used.

/// True for one JSON value and nothing behind it. Bytes above 127 are not looked at: they pass through the service.
bool isJson(const std::string& text);

/// Requires a complete HTTP request with the headers that the service sends and no others, and a body of JSON that has
/// the announced length.
/// @return the body
std::string requireRequest(const std::string& request);

#endif
