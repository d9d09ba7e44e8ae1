// The names of signals in messages.

#include <gtest/gtest.h>

#include <csignal>

#include "base/SignalName.h"

TEST(SignalName, IsThatOfItsMacroOrItsNumber) {
    EXPECT_EQ(SignalName(SIGTERM), "SIGTERM");
    EXPECT_EQ(SignalName(SIGKILL), "SIGKILL");
    EXPECT_EQ(SignalName(40), "signal 40") << "of a real-time signal";
    EXPECT_EQ(SignalName(0), "signal 0");
    EXPECT_EQ(SignalName(1000), "signal 1000");
}
