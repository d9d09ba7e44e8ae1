#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace vxsched {

// A command of a crontab and its standard input.
struct TCrontabCommand {
    std::string command;
    std::optional<std::string> input;

    bool operator==(const TCrontabCommand&) const = default;
};

// What cron makes of the rest of a line: the first % without a backslash begins the input, in which each
// other one is a line end. In the command \% stands for % and \\ for a backslash, in the input \% alone.
TCrontabCommand ReadCrontabCommand(std::string_view text);

// The text that ReadCrontabCommand() reads as that. Empty if there is none: a crontab has no line ends
// in a command, and an input ends with one.
std::optional<std::string> WriteCrontabCommand(const TCrontabCommand& command);

}  // namespace vxsched
