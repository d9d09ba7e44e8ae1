// The environment of a launched program, also when there is no memory for it.

#include <gtest/gtest.h>
#include "store/CLaunchEnvironment.h"

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <new>
#include <optional>
#include <string>
#include <vector>

using vxsched::CLaunchEnvironment;
using TStrings = std::vector<std::string>;

static constexpr vxsched::TTime cDue{std::chrono::seconds(1'000'000)};

static constexpr long cNone = -1;
static thread_local long gUntilFailure = cNone;  // allocations that still succeed

[[gnu::noinline]] void* operator new(std::size_t size) {
    if (gUntilFailure == 0)
        throw std::bad_alloc();
    if (gUntilFailure != cNone)
        --gUntilFailure;
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

static TStrings StringsOf(char* const* environment) {
    TStrings strings;
    while (*environment != nullptr)
        strings.emplace_back(*environment++);
    return strings;
}

class LaunchEnvironment : public testing::Test {
protected:
    TStrings strings = {"PATH=/bin", "VXSCHED_DUE=7", "VXSCHED_TASKS=kept", "VXSCHED_TASK=old",
                        "VXSCHED_TASK=twice"};
    const std::vector<char*> inherited = {strings[0].data(), strings[1].data(), strings[2].data(),
                                          strings[3].data(), strings[4].data(), nullptr};
    const std::string longName = std::string(100, 'n');
};

TEST_F(LaunchEnvironment, VariablesAreReplacedOrRemoved) {
    EXPECT_EQ(StringsOf(CLaunchEnvironment(inherited.data(), "a task", cDue).Get()),
              (TStrings{"PATH=/bin", "VXSCHED_TASKS=kept", "VXSCHED_TASK=a task",
                        "VXSCHED_DUE=1000000"}));
    EXPECT_EQ(StringsOf(CLaunchEnvironment(inherited.data(), "", std::nullopt).Get()),
              (TStrings{"PATH=/bin", "VXSCHED_TASKS=kept", "VXSCHED_TASK="}));
    EXPECT_EQ(StringsOf(CLaunchEnvironment(inherited.data(), nullptr, std::nullopt).Get()),
              (TStrings{"PATH=/bin", "VXSCHED_TASKS=kept"}));
}

TEST_F(LaunchEnvironment, OfAProcessWithoutAnyHasTheVariables) {
    EXPECT_EQ(StringsOf(CLaunchEnvironment(nullptr, "task", cDue).Get()),
              (TStrings{"VXSCHED_TASK=task", "VXSCHED_DUE=1000000"}));
}

TEST_F(LaunchEnvironment, IsTheInheritedOneWithoutMemory) {
    long allocations = 0;
    for (bool isInherited = true; isInherited; ++allocations) {
        gUntilFailure = allocations;
        const CLaunchEnvironment environment(inherited.data(), longName.c_str(), cDue);
        gUntilFailure = cNone;
        isInherited = environment.Get() == inherited.data();
    }
    EXPECT_GT(allocations, 2);
}

TEST_F(LaunchEnvironment, VariablesThatDoNotFitAreLeftOut) {
    std::vector<TStrings> tried;
    const auto launch = [&](int first, int second) {
        tried.clear();
        return vxsched::SpawnForTask(inherited.data(), "task", cDue, [&](char* const variables[]) {
            tried.push_back(StringsOf(variables));
            return tried.size() == 1 ? first : second;
        });
    };
    EXPECT_EQ(launch(E2BIG, 0), 0);
    ASSERT_EQ(tried.size(), 2U);
    EXPECT_EQ(tried[0].back(), "VXSCHED_DUE=1000000");
    EXPECT_EQ(tried[1], (TStrings{"PATH=/bin", "VXSCHED_TASKS=kept"}));
    EXPECT_EQ(launch(E2BIG, E2BIG), E2BIG);
    EXPECT_EQ(launch(ENOENT, 0), ENOENT);
    EXPECT_EQ(tried.size(), 1U);
}
