// Power failures after each call on the files of a store, with every kind of loss: as many states as
// there is time for before each landing, or all if POWER_FAILURES is "all".

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "PowerFailures.h"

TEST(EveryPowerFailure, LosesNothingSilently) {
#ifdef PLAIN_BUILD
    const char* const given = std::getenv("POWER_FAILURES");
    TryPowerFailures(given != nullptr && std::string(given) == "all" ? 0 : 1500);
#else
    TryPowerFailures(400);
#endif
}
