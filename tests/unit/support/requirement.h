#ifndef TESTS_UNIT_SUPPORT_REQUIREMENT_H
#define TESTS_UNIT_SUPPORT_REQUIREMENT_H

#include <string>

/// What must hold wherever the service meets a played part of the camera. A unit test fails when it does not
/// (requirement.cpp); a fuzz target ends, as a crash would (fuzz/oracle.cpp).
/// @param detail  the bytes in question
void require(bool holds, const char* what, const std::string& detail = "");

#endif
