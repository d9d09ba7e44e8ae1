// Information flags: their values and their listener.

#include <VXC_Information.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

TEST(Information, FlagIsReadBackAndAnUnknownOneLeavesTheValue) {
    int value = 7;
    EXPECT_FALSE(VXC_GetInformation("flag", value));
    EXPECT_EQ(value, 7);
    VXC_SetInformation("flag", 1);
    VXC_SetInformation("other", -5);
    EXPECT_FALSE(VXC_GetInformation("Flag", value));
    EXPECT_TRUE(VXC_GetInformation("flag", value));
    EXPECT_EQ(value, 1);
    VXC_SetInformation("flag", 0);
    EXPECT_TRUE(VXC_GetInformation("flag", value));
    EXPECT_EQ(value, 0);
    EXPECT_TRUE(VXC_GetInformation("other", value));
    EXPECT_EQ(value, -5);
}

TEST(Information, ListenerIsCalledForEverySetUntilItIsReplaced) {
    std::vector<std::string> calls;
    const auto listener = [](const std::string& name, int value, void* context) {
        static_cast<std::vector<std::string>*>(context)->push_back(name + '=' +
                                                                   std::to_string(value));
    };
    VXC_SetInformationListener(listener, &calls);
    VXC_SetInformation("a", 1);
    VXC_SetInformation("a", 1);
    std::vector<std::string> others;
    VXC_SetInformationListener(listener, &others);
    VXC_SetInformation("b", 2);
    VXC_SetInformationListener(nullptr, nullptr);
    VXC_SetInformation("c", 3);
    EXPECT_EQ(calls, std::vector<std::string>({"a=1", "a=1"}));
    EXPECT_EQ(others, std::vector<std::string>({"b=2"}));
}

TEST(Information, ExceptionOfTheListenerPassesWithTheFlagSet) {
    VXC_SetInformationListener(
        [](const std::string&, int, void*) { throw std::runtime_error("listener"); }, nullptr);
    EXPECT_THROW(VXC_SetInformation("a", 1), std::runtime_error);
    VXC_SetInformationListener(nullptr, nullptr);
    int value = 0;
    EXPECT_TRUE(VXC_GetInformation("a", value));
    EXPECT_EQ(value, 1);
}

TEST(Information, ThreadsMaySetAtTheSameTime) {
    std::vector<std::thread> threads;
    for (int index = 0; index < 4; ++index)
        threads.emplace_back([index] {
            for (int iteration = 0; iteration <= 200; ++iteration)
                VXC_SetInformation("flag " + std::to_string((index * 50 + iteration) % 7),
                                   iteration);
            VXC_SetInformation("thread " + std::to_string(index), index);
        });
    for (std::thread& thread : threads)
        thread.join();
    for (int index = 0; index < 4; ++index) {
        int value = -1;
        EXPECT_TRUE(VXC_GetInformation("thread " + std::to_string(index), value));
        EXPECT_EQ(value, index);
    }
}
