#include "support/failing_allocations.h"

#include <cstddef>
#include <new>

// The name of "operator new(std::size_t)" for the linker, which depends on the type behind std::size_t.
#if __SIZEOF_SIZE_T__ == 8
#define WRAPPED_NEW __wrap__Znwm
#define REAL_NEW __real__Znwm
#else
#define WRAPPED_NEW __wrap__Znwj
#define REAL_NEW __real__Znwj
#endif

namespace {

thread_local int toFail = 0;

}  // namespace

extern "C" {

void* REAL_NEW(std::size_t size);

void* WRAPPED_NEW(std::size_t size)
{
    if (toFail > 0) {
        --toFail;
        throw std::bad_alloc();
    }
    return REAL_NEW(size);
}

}  // extern "C"

FailingAllocations::FailingAllocations(int count)
{
    toFail = count;
}

FailingAllocations::~FailingAllocations()
{
    toFail = 0;
}

int FailingAllocations::left() const
{
    return toFail;
}
