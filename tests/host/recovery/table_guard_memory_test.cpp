// A guard that runs out of memory while it reports why it cannot check the table.

#include <gtest/gtest.h>
#include "host/recovery/CTableGuard.h"

#include <cstdlib>
#include <filesystem>
#include <new>

#include "TableFile.h"

static constexpr long cNone = -1;
static thread_local long gUntilFailure = cNone;  // allocations that still succeed; then one fails

[[gnu::noinline]] void* operator new(std::size_t size) {
    if (gUntilFailure != cNone && gUntilFailure-- == 0)
        throw std::bad_alloc();
    if (void* const memory = std::malloc(size))
        return memory;
    throw std::bad_alloc();
}

[[gnu::noinline]] void operator delete(void* memory) noexcept {
    std::free(memory);
}

[[gnu::noinline]] void operator delete(void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}

// Whether the allocation of that number failed, if there were so many.
static bool MakeGuard(long number) {
    gUntilFailure = number;
    const CTableGuard guard(0);
    const bool hasFailed = gUntilFailure == cNone;
    gUntilFailure = cNone;
    return hasFailed;
}

// The constructor makes the same check as the guard's thread, where an exception would end the host.
TEST(TableGuardOutOfMemory, CheckThatCannotReportItsFailureIsRepeated) {
    std::filesystem::create_directories(cTable);  // no file: each check fails
    for (long number = 0; MakeGuard(number); ++number)
        EXPECT_LT(number, 1000);
}
