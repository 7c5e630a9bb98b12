/*
 * Under user-mode emulation the machine cannot run the programs that the tests start: they are for another processor.
 * Linked with --wrap=execv, this puts the emulator's words (CAMGATE_EMULATOR, separated by '|') before them.
 */
#include <unistd.h>

#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

extern "C" int __wrap_execv(const char* program, char* const arguments[])
{
    std::vector<std::string> words;
    std::istringstream emulator(CAMGATE_EMULATOR);
    for (std::string word; std::getline(emulator, word, '|');) {
        words.push_back(word);
    }
    // The library is for the program; the emulator itself cannot load it.
    if (const char* const preload = std::getenv("LD_PRELOAD")) {
        words.push_back("-E");
        words.push_back(std::string("LD_PRELOAD=") + preload);
        unsetenv("LD_PRELOAD");
    }
    words.emplace_back(program);
    std::vector<char*> all;
    for (std::string& word : words) {
        all.push_back(word.data());
    }
    for (char* const* argument = arguments + 1; *argument != nullptr; ++argument) {
        all.push_back(*argument);
    }
    all.push_back(nullptr);
    return execvp(all[0], all.data());
}
