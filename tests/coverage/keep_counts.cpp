// Keeps the counts of a coverage build over an end that runs nothing more: stands in front of std::_Exit.

#include <dlfcn.h>

#include <cstdlib>

extern "C" {

void __gcov_dump(void);
[[noreturn]] void __real__Exit(int code);

/// The counts cannot be written without memory, which a preloaded library may have taken away. Runs before they are.
__attribute__((destructor)) static void giveMemoryBack()
{
    if (void* const memoryComesBack = ::dlsym(RTLD_DEFAULT, "memory_comes_back")) {
        reinterpret_cast<void (*)()>(memoryComesBack)();
    }
}

[[noreturn]] void __wrap__Exit(int code)
{
    giveMemoryBack();
    __gcov_dump();
    __real__Exit(code);
}
}
