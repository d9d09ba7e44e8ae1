#pragma once

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

// The messages of the control socket (docs/control.md): a client sends one request, the host one
// answer, each a line of JSON. Any thread may call these functions.

namespace vxsched {

// A line, without its line break, is at most so long. A longer request is not read to its end.
inline constexpr std::size_t cLongestMessage = std::size_t{1} << 20;

// Launch a program outside the schedule. The strings may hold any bytes but zero bytes.
struct TLaunchRequest {
    std::string task;
    std::string program;
    std::string parameter;

    bool operator==(const TLaunchRequest&) const = default;
};

// What became of it.
struct TLaunchAnswer {
    int error = 0;             // an error number; 0: launched
    std::string message = {};  // of an error
    pid_t process = 0;         // the launched program
    std::string run = {};      // its id; empty if the program has no runner

    bool operator==(const TLaunchAnswer&) const = default;
};

// End a run, as a SIGTERM to its runner does.
struct TStopRequest {
    std::string task;
    std::string run;  // its id

    bool operator==(const TStopRequest&) const = default;
};

struct TStopAnswer {
    int error = 0;             // an error number; 0: the run was told to end, or has ended
    std::string message = {};  // of an error

    bool operator==(const TStopAnswer&) const = default;
};

// The lines, each with its line break.
std::string EncodeRequest(const TLaunchRequest& request);
std::string EncodeAnswer(const TLaunchAnswer& answer);
std::string EncodeStopRequest(const TStopRequest& request);

// Returns the line that answers the request in `line`, which has no line break: what `launch` or
// `stop` returns, or an error if the line is no request that this version knows.
std::string AnswerRequest(std::string_view line,
                          const std::function<TLaunchAnswer(const TLaunchRequest&)>& launch,
                          const std::function<TStopAnswer(const TStopRequest&)>& stop);

// Empty if `line`, without its line break, is no answer.
std::optional<TLaunchAnswer> DecodeAnswer(std::string_view line);
std::optional<TStopAnswer> DecodeStopAnswer(std::string_view line);

}  // namespace vxsched
