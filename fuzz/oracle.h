#ifndef FUZZ_ORACLE_H
#define FUZZ_ORACLE_H

#include <string>

/// What must hold whatever the input was. Independent of the code under test: its own JSON and HTTP are not used.

/// Ends the program, as a crash would, when something does not hold.
/// @param detail  the bytes in question, printed with what is not printable escaped
void require(bool holds, const char* what, const std::string& detail = "");

/// True for one JSON value and nothing behind it. Bytes above 127 are not looked at: they pass through the service.
bool isJson(const std::string& text);

/// Requires a complete HTTP request with the headers that the service sends and no others, and a body of JSON that has
/// the announced length.
/// @return the body
std::string requireRequest(const std::string& request);

#endif
