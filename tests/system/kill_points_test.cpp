// A sample of the kills that every_kill_point_test.cpp tries.

#include <gtest/gtest.h>

#include "KillPoints.h"

class KillPoint : public testing::TestWithParam<std::string> {};

TEST_P(KillPoint, LosesNothing) {
    TryKillPoints(GetParam(), 3);
}

INSTANTIATE_TEST_SUITE_P(Sample, KillPoint, testing::ValuesIn(KillScenarios()),
                         [](const auto& scenario) { return scenario.param; });
