#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// What a launcher, the host or vxsched-change, asks of the runner besides the program: the content of
// the environment variable VXSCHED_RUN, which the runner does not hand on.
struct TRunRequest {
    // What becomes of the output besides being kept: the runner's standard output gets it as it is,
    // or each line after the task's name.
    enum ECopy { cNoCopy, cPlain, cPrefixed };

    int report = -1;    // the descriptor of the pipe for a TLaunchReport
    int follower = -1;  // of a stream socket to whoever reads the output until the end; -1: nobody
    std::string trigger;
    std::uint64_t historySize = 0;
    std::uint64_t outputSize = 0;
    ECopy copy = cNoCopy;
    int attempt = 1;           // of TRunRecord
    std::string retryOf = {};  // of TRunRecord; empty for the first attempt
};

inline constexpr char cRunVariable[] = "VXSCHED_RUN";

// What the runner writes to the pipe, by one write(): that its program runs, or why it does not.
struct TLaunchReport {
    int error;  // of posix_spawn(); 0: the program runs
    int process;
    // The id of the run, with a zero byte after it; empty if nobody can wait for its end, since its
    // CRunningFile could not be made.
    char run[64];
    // Of an error that the number does not tell, with a zero byte after it; else empty.
    char reason[1024];
};

// How much is kept unless somebody has chosen, in bytes: of the history, and of each run's output.
inline constexpr std::uint64_t cDefaultHistorySize = std::uint64_t{1} << 20;
inline constexpr std::uint64_t cDefaultOutputSize = std::uint64_t{1} << 20;

std::string EncodeRunRequest(const TRunRequest& request);

// Empty if it is no request of this version.
std::optional<TRunRequest> DecodeRunRequest(std::string_view text);

// What the runner sets and executes if the system has no room for it among the runner's own arguments
// and variables: the content of the file that is then the standard input of the runner, which has no
// arguments.
struct TRunCommand {
    std::vector<std::string> variables;  // "NAME=VALUE"
    std::vector<std::string> arguments;  // the program first
};

std::string EncodeRunCommand(const TRunCommand& command);

// Empty if the bytes are no such content.
std::optional<TRunCommand> DecodeRunCommand(std::string_view bytes);
