#ifndef FUZZ_INPUT_H
#define FUZZ_INPUT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

/// What stands between the parts of an input: a line of its own, so that inputs can be written and read in an editor.
constexpr char PART_END[] = "\n%%\n";

/// Most that is taken of an input: what fits into one datagram.
constexpr std::size_t LONGEST_INPUT = 100000;

/// The parts of an input, at least one.
inline std::vector<std::string> partsOf(const std::uint8_t* data, std::size_t size)
{
    const std::string input(reinterpret_cast<const char*>(data), size < LONGEST_INPUT ? size : LONGEST_INPUT);
    constexpr std::size_t WIDTH = sizeof(PART_END) - 1;
    std::vector<std::string> parts;
    std::size_t begin = 0;
    for (std::size_t end = input.find(PART_END); end != std::string::npos; end = input.find(PART_END, begin)) {
        parts.push_back(input.substr(begin, end - begin));
        begin = end + WIDTH;
    }
    parts.push_back(input.substr(begin));
    return parts;
}

/// What a fuzz target is: runs one input to its end.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

#endif
