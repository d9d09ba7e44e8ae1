// A sample of the power failures that every_power_failure_test.cpp tries.

#include <gtest/gtest.h>

#include "PowerFailures.h"

TEST(PowerFailure, LosesNothingSilently) {
#ifdef PLAIN_BUILD
    TryPowerFailures(150);
#else
    TryPowerFailures(40);
#endif
}
