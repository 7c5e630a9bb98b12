/// Runs a fuzz target over inputs that are kept, without a fuzzer. Fails when a folder has none.
/// usage: TARGET FILE_OR_FOLDER...
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

#include "input.h"

namespace {

std::vector<std::filesystem::path> filesOf(const std::filesystem::path& path)
{
    if (!std::filesystem::is_directory(path)) {
        return {path};
    }
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(path)) {
        if (entry.is_regular_file()) {
            files.push_back(entry.path());
        }
    }
    return files;
}

/// @return false when the file cannot be read
bool run(const std::filesystem::path& path)
{
    std::ifstream file(path, std::ios::binary);
    const std::string input{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    if (file) {
        std::cout << path.string() << std::endl;  // the last name tells which input ended the program
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
    }
    return static_cast<bool>(file);
}

}  // namespace

int main(int argc, char** argv)
{
    for (int i = 1; i < argc; ++i) {
        const std::vector<std::filesystem::path> files = filesOf(argv[i]);
        if (files.empty() || !std::all_of(files.begin(), files.end(), run)) {
            std::cerr << argv[i] << ": no input, or one that cannot be read" << std::endl;
            return 2;
        }
        std::cout << files.size() << " inputs" << std::endl;
    }
    return argc > 1 ? 0 : 2;
}
