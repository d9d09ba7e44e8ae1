// Power failures after each call on the files of a store, with every kind of loss.

#include <gtest/gtest.h>

#include "PowerFailures.h"

TEST(EveryPowerFailure, LosesNothingSilently) {
#ifdef PLAIN_BUILD
    TryPowerFailures(0);
#else
    TryPowerFailures(400);
#endif
}
