// What a launcher asks of the runner, as it is passed.

#include "runs/RunRequest.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>

using testing::ElementsAre;
using testing::IsEmpty;

TEST(RunRequest, CommandIsReadAsItWasWritten) {
    const std::string longName = "VXSCHED_TASK=" + std::string(200'000, '\xff');
    const std::optional<TRunCommand> command = DecodeRunCommand(
        EncodeRunCommand({{longName, "VXSCHED_DUE=5"}, {"/bin/echo", "a\nb", ""}}));
    ASSERT_TRUE(command);
    EXPECT_THAT(command->variables, ElementsAre(longName, "VXSCHED_DUE=5"));
    EXPECT_THAT(command->arguments, ElementsAre("/bin/echo", "a\nb", ""));
}

TEST(RunRequest, CommandMayHaveNoVariables) {
    const std::optional<TRunCommand> command =
        DecodeRunCommand(EncodeRunCommand({{}, {"/bin/true"}}));
    ASSERT_TRUE(command);
    EXPECT_THAT(command->variables, IsEmpty());
    EXPECT_THAT(command->arguments, ElementsAre("/bin/true"));
}

TEST(RunRequest, WhatIsNoCommandIsNotRead) {
    const std::string whole = EncodeRunCommand({{"A=B"}, {"/bin/true"}});
    for (const std::string& bytes : {std::string(), std::string("A=B"), std::string("A=B\0", 4),
                                     std::string("A=B\0\0", 5), whole.substr(0, whole.size() - 1)})
        EXPECT_FALSE(DecodeRunCommand(bytes)) << bytes.size();
}
