// What a launcher asks of the runner, as it is passed.

#include "runs/RunRequest.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <string>

#include "Process.h"

using testing::ElementsAre;
using testing::IsEmpty;

TEST(RunRequest, IsReadAsItWasWritten) {
    const TRunRequest request = {.report = 3,
                                 .follower = 4,
                                 .trigger = "catch-up",
                                 .historySize = UINT64_MAX,
                                 .outputSize = 1 << 20,
                                 .copy = TRunRequest::cPrefixed};
    const std::optional<TRunRequest> read = DecodeRunRequest(EncodeRunRequest(request));
    ASSERT_TRUE(read);
    EXPECT_EQ(read->report, 3);
    EXPECT_EQ(read->follower, 4);
    EXPECT_EQ(read->trigger, "catch-up");
    EXPECT_EQ(read->historySize, UINT64_MAX);
    EXPECT_EQ(read->outputSize, std::uint64_t{1} << 20U);
    EXPECT_EQ(read->copy, TRunRequest::cPrefixed);
    EXPECT_EQ(read->attempt, 1);
    EXPECT_EQ(read->retryOf, "");
}

TEST(RunRequest, OfALaterAttemptIsReadAsItWasWritten) {
    const std::string text = EncodeRunRequest({.report = 3,
                                               .trigger = "retry",
                                               .attempt = 12,
                                               .retryOf = "20261123T101112.131Z-4194304"});
    const std::optional<TRunRequest> read = DecodeRunRequest(text);
    ASSERT_TRUE(read);
    EXPECT_EQ(read->attempt, 12);
    EXPECT_EQ(read->retryOf, "20261123T101112.131Z-4194304");
    EXPECT_EQ(EncodeRunRequest(*read), text);
    for (const std::string& wrong : {text + " ", text + "x", text + " 3"})
        EXPECT_FALSE(DecodeRunRequest(wrong)) << wrong;
    const std::string first = EncodeRunRequest({.report = 3, .trigger = "retry"});
    for (const char* const wrong : {" ", " 2", " 2 ", " 1 2026Z-1", " -2 2026Z-1", " 2 run"})
        EXPECT_FALSE(DecodeRunRequest(first + wrong)) << wrong;
}

// The fuzzer begins with these.
TEST(RunRequest, OfTheCorpusIsReadUnlessItIsNone) {
    const std::string corpus = std::string(CORPUS) + '/';
    for (const char* const name : {"manual", "scheduled"})
        EXPECT_TRUE(DecodeRunRequest(ReadFile(corpus + name))) << name;
    for (const char* const name : {"other-version", "too-much"})
        EXPECT_FALSE(DecodeRunRequest(ReadFile(corpus + name))) << name;
}

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
