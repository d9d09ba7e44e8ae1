// Kills at the system calls of each program: at KILL_POINTS of each scenario, or at every one if
// that is "all". Without it, at as many as there is time for before each landing.

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "KillPoints.h"

static std::size_t Most(std::size_t otherwise) {
    const char* const given = std::getenv("KILL_POINTS");
    if (given == nullptr)
        return otherwise;
    return std::string(given) == "all" ? 0 : std::stoul(given);
}

class EveryKillPoint : public testing::TestWithParam<std::string> {};

TEST_P(EveryKillPoint, LosesNothing) {
    TryKillPoints(GetParam(), Most(20));
}

class EveryKillPointOnAWedgedMutex : public testing::TestWithParam<std::string> {};

TEST_P(EveryKillPointOnAWedgedMutex, LosesNothing) {
    TryKillPoints(GetParam(), Most(4));
}

INSTANTIATE_TEST_SUITE_P(Of, EveryKillPoint, testing::ValuesIn(KillScenarios()),
                         [](const auto& scenario) { return scenario.param; });

INSTANTIATE_TEST_SUITE_P(Of, EveryKillPointOnAWedgedMutex,
                         testing::ValuesIn(KillScenariosOnAWedgedMutex()),
                         [](const auto& scenario) { return scenario.param; });
