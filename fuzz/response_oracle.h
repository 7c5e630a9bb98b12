#ifndef FUZZ_RESPONSE_ORACLE_H
#define FUZZ_RESPONSE_ORACLE_H

#include <string>

/// A second reading of a response, from all of its bytes at once. Independent of the code under test, and of the HTTP
/// library's.
struct ResponseReading
{
    enum class Verdict {
        Whole,
        Broken,
        Undecided  ///< no head that a server would send: what the library makes of it is not foretold
    };

    Verdict verdict = Verdict::Broken;
    int status = 0;
    std::string body;  ///< of a whole one
};

/// @param announced  whether the end of the connection is announced, as close_notify does
ResponseReading readResponseAtOnce(const std::string& bytes, bool announced);

#endif
