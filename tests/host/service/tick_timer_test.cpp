// The timer that expires when the worker has not ticked for too long.

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/timerfd.h>
#include "host/HostThread.h"
#include "host/service/CTickTimer.h"

#include <chrono>
#include <thread>

using namespace std::chrono_literals;

TEST(TickTimer, RunsOutUnlessTheWorkerTicks) {
    const CTickTimer timer(1h);
    const auto isReadable = [&](int milliseconds) {
        pollfd descriptor{.fd = timer.Descriptor().Get(), .events = POLLIN, .revents = 0};
        return poll(&descriptor, 1, milliseconds) == 1;
    };
    EXPECT_FALSE(isReadable(0));
    const auto runOut = [&] {
        const itimerspec atOnce{.it_interval = {}, .it_value = {.tv_sec = 0, .tv_nsec = 1}};
        ASSERT_EQ(timerfd_settime(timer.Descriptor().Get(), 0, &atOnce, nullptr), 0);
        ASSERT_TRUE(isReadable(-1));
    };
    runOut();
    RestartTickTimer();
    EXPECT_FALSE(isReadable(0));
    runOut();
    std::thread([] {
        gIsHostThread = true;
        RestartTickTimer();
    }).join();
    EXPECT_TRUE(isReadable(0));
    timer.Restart();
    EXPECT_FALSE(isReadable(0));
}
