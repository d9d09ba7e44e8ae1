// The messages of the control socket: what one side writes the other one reads, and what is neither
// a request nor an answer is refused.

#include "control/Messages.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

using namespace vxsched;

using testing::HasSubstr;

namespace {

TStopAnswer NoStop(const TStopRequest& /*request*/) {
    ADD_FAILURE() << "a stop";
    return {};
}

// What the host gets of a line; empty if it refuses it.
std::optional<TLaunchRequest> Received(std::string line) {
    std::optional<TLaunchRequest> received;
    AnswerRequest(
        line,
        [&](const TLaunchRequest& request) {
            received = request;
            return TLaunchAnswer{.process = 1};
        },
        NoStop);
    return received;
}

TLaunchAnswer AnswerTo(const std::string& line) {
    std::string answer = AnswerRequest(
        line,
        [](const TLaunchRequest&) {
            ADD_FAILURE() << "a launch";
            return TLaunchAnswer();
        },
        NoStop);
    EXPECT_EQ(answer.find('\n'), answer.size() - 1);
    answer.pop_back();
    return DecodeAnswer(answer).value();
}

std::string WithoutLineBreak(std::string line) {
    EXPECT_EQ(line.find('\n'), line.size() - 1);
    line.pop_back();
    return line;
}

std::string AllBytes() {
    std::string bytes;
    for (int byte = 1; byte < 256; ++byte)
        bytes += static_cast<char>(byte);
    return bytes;
}

}  // namespace

TEST(ControlMessages, RequestIsReadAsItWasWritten) {
    const TLaunchRequest request = {"a \xc3\xa4 task", "/bin/echo", AllBytes()};
    const std::string line = WithoutLineBreak(EncodeRequest(request));
    for (const char character : line)
        EXPECT_TRUE(character >= ' ' && character <= '~') << line;
    EXPECT_EQ(Received(line), request);
    EXPECT_EQ(Received(WithoutLineBreak(EncodeRequest({}))), TLaunchRequest());
}

TEST(ControlMessages, LongestArgumentOfAProgramFits) {
    EXPECT_LE(EncodeRequest({"a task", "/bin/echo", std::string(131'071, '\x01')}).size(),
              cLongestMessage);
}

TEST(ControlMessages, RequestIsThatOfTheDocument) {
    const std::string line =
        R"({"version":1,"request":"run","task":"backup","program":"/bin/cp","parameter":"-a"})";
    EXPECT_EQ(WithoutLineBreak(EncodeRequest({"backup", "/bin/cp", "-a"})), line);
    EXPECT_EQ(Received(line), (TLaunchRequest{"backup", "/bin/cp", "-a"}));
}

TEST(ControlMessages, AnswerIsReadAsItWasWritten) {
    for (const TLaunchAnswer& answer :
         {TLaunchAnswer{.process = 7, .run = "20261122T120000.000Z-6"}, TLaunchAnswer{.process = 7},
          TLaunchAnswer{.error = ENOENT, .message = "No such file or directory"}})
        EXPECT_EQ(DecodeAnswer(WithoutLineBreak(EncodeAnswer(answer))), answer);
}

TEST(ControlMessages, StopIsThatOfTheDocument) {
    const TStopRequest request = {
        "back\xff"
        "up",
        "20261122T120000.000Z-4710"};
    const std::string line =
        R"({"version":1,"request":"stop","task":"back\u00ffup","run":"20261122T120000.000Z-4710"})";
    EXPECT_EQ(WithoutLineBreak(EncodeStopRequest(request)), line);
    for (const TStopAnswer& answer :
         {TStopAnswer(), TStopAnswer{.error = EPERM, .message = "Operation not permitted"}}) {
        std::optional<TStopRequest> received;
        const std::string answered = AnswerRequest(
            line,
            [](const TLaunchRequest&) {
                ADD_FAILURE() << "a launch";
                return TLaunchAnswer();
            },
            [&](const TStopRequest& stop) {
                received = stop;
                return answer;
            });
        EXPECT_EQ(received, request);
        EXPECT_EQ(DecodeStopAnswer(WithoutLineBreak(answered)), answer) << answered;
    }
    for (const char* const other :
         {"", "{}", R"({"version":1})", R"({"version":2,"run":"a"})", R"({"version":1,"run":1})",
          R"({"version":1,"error":0,"message":""})", R"({"version":1,"error":1})"})
        EXPECT_EQ(DecodeStopAnswer(other), std::nullopt) << other;
}

TEST(ControlMessages, UnknownFieldsAreIgnored) {
    EXPECT_TRUE(Received(R"({"version":1,"request":"run","task":"a","program":"/bin/cp",)"
                         R"("parameter":"","other":[1,{}]})"));
    EXPECT_TRUE(DecodeAnswer(R"({"version":1,"process":1,"run":"","other":null})"));
}

TEST(ControlMessages, WhatIsNoRequestIsRefusedWithAReason) {
    const std::string fields = R"("task":"a","program":"/bin/cp","parameter":"")";
    const std::string head = R"({"version":1,"request":"run",)";
    EXPECT_EQ(AnswerTo(R"({"version":2,"request":"run",)" + fields + '}').error, EPROTONOSUPPORT);
    EXPECT_EQ(AnswerTo(R"({"version":1,"request":"wait",)" + fields + '}').error, ENOSYS);
    EXPECT_EQ(AnswerTo(R"({"version":1,"request":"stop","task":"a","run":"../lock"})").error,
              EINVAL);
    for (const std::string& line :
         {std::string(), std::string("{}"), std::string("run"), std::string("[1]"),
          std::string("\xff"), std::string(100'000, '['), "{\"request\":\"run\"," + fields + '}',
          head + R"("task":"a","program":"/bin/cp"})",
          head + R"("task":"a","program":"/bin/cp","parameter":7})",
          head + R"("task":null,"program":"/bin/cp","parameter":""})",
          head + R"("task":"\u0100","program":"/bin/cp","parameter":""})",
          head + R"("task":"a\u0000b","program":"/bin/cp","parameter":""})",
          std::string(R"({"version":1,"request":"stop","task":"a"})"),
          std::string(R"({"version":1,"request":"stop","task":"a","run":1})"),
          head + fields + "} {}"})
        EXPECT_EQ(AnswerTo(line).error, EINVAL) << line.substr(0, 200);
    EXPECT_THAT(AnswerTo("{}").message, HasSubstr("not a request"));
}

TEST(ControlMessages, WhatIsNoAnswerIsNotTakenForOne) {
    for (const char* const line :
         {"", "{}", R"({"version":2,"process":1,"run":""})", R"({"version":1})",
          R"({"version":1,"process":0,"run":""})", R"({"version":1,"process":-1,"run":""})",
          R"({"version":1,"process":1})", R"({"version":1,"process":5000000000,"run":""})",
          R"({"version":1,"process":1,"run":"../../etc"})",
          R"({"version":1,"error":0,"message":""})", R"({"version":1,"error":2})",
          R"({"version":1,"error":"2","message":""})"})
        EXPECT_EQ(DecodeAnswer(line), std::nullopt) << line;
}
