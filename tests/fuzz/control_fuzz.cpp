// Fuzzes both ends of the control socket with any bytes as a line. A request and an answer that are
// read are written and read again, which must give the same.

#include <optional>
#include <string>
#include <string_view>

#include "control/Messages.h"
#include "fuzz/Require.h"

using namespace vxsched;

static std::string_view WithoutLineBreak(const std::string& line) {
    Require(line.find('\n') == line.size() - 1, "a message is not one line");
    return std::string_view(line).substr(0, line.size() - 1);
}

// What the host has received of a line, and its answer.
struct TServed {
    std::optional<TLaunchRequest> launch;
    std::optional<TStopRequest> stop;
    std::string answer;
};

static TServed Serve(std::string_view line) {
    TServed served;
    served.answer = AnswerRequest(
        line,
        [&](const TLaunchRequest& received) {
            served.launch = received;
            return TLaunchAnswer{.process = 1, .run = "a run"};
        },
        [&](const TStopRequest& received) {
            served.stop = received;
            return TStopAnswer();
        });
    return served;
}

static void TryRequest(std::string_view line) {
    const TServed served = Serve(line);
    const std::string_view answer = WithoutLineBreak(served.answer);
    Require(served.stop ? DecodeStopAnswer(answer).has_value() : DecodeAnswer(answer).has_value(),
            "an answer cannot be read");
    if (!served.launch && !served.stop)
        return;
    const std::string written =
        served.launch ? EncodeRequest(*served.launch) : EncodeStopRequest(*served.stop);
    const TServed again = Serve(WithoutLineBreak(written));
    Require(again.launch == served.launch && again.stop == served.stop,
            "a request differs after it was written and read");
}

static void TryAnswer(std::string_view line) {
    if (const std::optional<TStopAnswer> stopped = DecodeStopAnswer(line))
        Require(stopped->error != 0 || stopped->message.empty(), "an answer is of both kinds");
    const std::optional<TLaunchAnswer> answer = DecodeAnswer(line);
    if (!answer)
        return;
    Require((answer->error == 0) != (answer->process == 0), "an answer is of both kinds");
    const std::string written = EncodeAnswer(*answer);
    Require(DecodeAnswer(WithoutLineBreak(written)) == answer,
            "an answer differs after it was written and read");
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    const std::string_view line(reinterpret_cast<const char*>(data), size);
    TryRequest(line);
    TryAnswer(line);
    return 0;
}
