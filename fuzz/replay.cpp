/// Runs a fuzz target over inputs that are kept, without a fuzzer.
/// usage: TARGET FILE_OR_FOLDER...
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

}  // namespace

int main(int argc, char** argv)
{
    std::size_t count = 0;
    for (int i = 1; i < argc; ++i) {
        for (const std::filesystem::path& path : filesOf(argv[i])) {
            std::ifstream file(path, std::ios::binary);
            const std::string input{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
            if (!file) {
                std::cerr << "cannot read " << path.string() << std::endl;
                return 2;
            }
            std::cout << path.string() << std::endl;  // the last name tells which input ended the program
            LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
            ++count;
        }
    }
    std::cout << count << " inputs" << std::endl;
    return count > 0 ? 0 : 2;
}
