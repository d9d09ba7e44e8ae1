// How long a failed check of the table waits for the next one.

#include <gtest/gtest.h>
#include "host/recovery/CRetryInterval.h"

#include <chrono>

using namespace std::chrono_literals;

TEST(RetryInterval, DoublesUpToItsLimitAndBeginsAnewAfterASuccess) {
    CRetryInterval interval(100ms, 500ms);
    EXPECT_EQ(interval.Get(), 100ms);
    interval.Failed();
    EXPECT_EQ(interval.Get(), 200ms);
    interval.Failed();
    EXPECT_EQ(interval.Get(), 400ms);
    interval.Failed();
    EXPECT_EQ(interval.Get(), 500ms);
    interval.Failed();
    EXPECT_EQ(interval.Get(), 500ms);
    interval.Succeeded();
    EXPECT_EQ(interval.Get(), 100ms);
}
