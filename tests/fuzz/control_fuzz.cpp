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

static void TryRequest(std::string_view line) {
    std::optional<TLaunchRequest> request;
    const std::string answer = AnswerRequest(line, [&](const TLaunchRequest& received) {
        request = received;
        return TLaunchAnswer{.process = 1, .run = "a run"};
    });
    Require(DecodeAnswer(WithoutLineBreak(answer)).has_value(), "an answer cannot be read");
    if (!request)
        return;
    std::optional<TLaunchRequest> again;
    const std::string written = EncodeRequest(*request);
    AnswerRequest(WithoutLineBreak(written), [&](const TLaunchRequest& received) {
        again = received;
        return TLaunchAnswer();
    });
    Require(again == request, "a request differs after it was written and read");
}

static void TryAnswer(std::string_view line) {
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
