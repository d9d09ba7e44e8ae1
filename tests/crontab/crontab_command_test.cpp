// What cron makes of a command with % and backslashes.

#include "crontab/CrontabCommand.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

using vxsched::ReadCrontabCommand;
using vxsched::TCrontabCommand;
using vxsched::WriteCrontabCommand;

TEST(CrontabCommand, EndsAtThePercentSign) {
    EXPECT_EQ(ReadCrontabCommand("mail root%Hello%there"),
              (TCrontabCommand{"mail root", "Hello\nthere\n"}));
    EXPECT_EQ(ReadCrontabCommand("cat%"), (TCrontabCommand{"cat", ""}));
    EXPECT_EQ(ReadCrontabCommand("cat%%"), (TCrontabCommand{"cat", "\n"}));
    EXPECT_EQ(ReadCrontabCommand("cat"), (TCrontabCommand{"cat", {}}));
    EXPECT_EQ(ReadCrontabCommand(""), (TCrontabCommand{"", {}}));
}

TEST(CrontabCommand, HasEscapesOfItsOwn) {
    EXPECT_EQ(ReadCrontabCommand(R"(date +\%H \\ \n \)"),
              (TCrontabCommand{R"(date +%H \ \n \)", {}}));
    EXPECT_EQ(ReadCrontabCommand(R"(a\\%b)"), (TCrontabCommand{R"(a\)", "b\n"}));
    EXPECT_EQ(ReadCrontabCommand(R"(a\\\%b)"), (TCrontabCommand{R"(a\%b)", {}}));
}

TEST(CrontabCommand, InputHasOneEscape) {
    EXPECT_EQ(ReadCrontabCommand(R"(cat%100\% \\ \n\)"), (TCrontabCommand{"cat", R"(100% \\ \n\)"
                                                                                 "\n"}));
    EXPECT_EQ(ReadCrontabCommand(R"(cat%a\\%b)"), (TCrontabCommand{"cat", R"(a\%b)"
                                                                          "\n"}));
}

TEST(CrontabCommand, IsWrittenAsItIsRead) {
    std::mt19937 random(20261123);
    for (int count = 0; count < 20'000; ++count) {
        std::string text;
        for (unsigned length = random() % 8; length > 0; --length)
            text += "a%\\ "[random() % 4];
        const TCrontabCommand read = ReadCrontabCommand(text);
        if (const auto written = WriteCrontabCommand(read)) {
            EXPECT_EQ(ReadCrontabCommand(*written), read) << text << " | " << *written;
        } else {
            EXPECT_TRUE(read.input) << text;
        }
    }
    EXPECT_FALSE(WriteCrontabCommand({"two\nlines", {}}));
    EXPECT_FALSE(WriteCrontabCommand({"cat", "no line end"}));
}
