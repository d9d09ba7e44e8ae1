#include "runs/RunRequest.h"

#include <fmt/format.h>

#include <cstdio>
#include <utility>

std::string EncodeRunRequest(const TRunRequest& request) {
    std::string text =
        fmt::format("1 {} {} {} {} {} {}", request.report, request.follower, request.trigger,
                    request.historySize, request.outputSize, static_cast<int>(request.copy));
    // A runner of an older version knows no such request.
    if (request.attempt > 1)
        text += fmt::format(" {} {}", request.attempt, request.retryOf);
    return text;
}

std::optional<TRunRequest> DecodeRunRequest(std::string_view text) {
    TRunRequest request;
    unsigned int copy = 0;
    char trigger[16];
    int end = 0;
    const std::string string(text);
    char retryOf[64] = {};
    const int count =
        std::sscanf(string.c_str(), "1 %d %d %15[a-z-] %lu %lu %u%n %d %63[0-9TZ.-]%n",
                    &request.report, &request.follower, trigger, &request.historySize,
                    &request.outputSize, &copy, &end, &request.attempt, retryOf, &end);
    const bool isFirst = count == 6;
    if ((!isFirst && (count != 8 || request.attempt < 2)) ||
        static_cast<std::size_t>(end) != string.size() || copy > TRunRequest::cPrefixed)
        return {};
    request.retryOf = retryOf;
    request.trigger = trigger;
    request.copy = static_cast<TRunRequest::ECopy>(copy);
    return request;
}

// Each string has a zero byte after it, which none of them has in it. An empty one, which no variable
// is, ends the variables.
std::string EncodeRunCommand(const TRunCommand& command) {
    std::string bytes;
    for (const std::string& variable : command.variables)
        bytes.append(variable).push_back('\0');
    bytes += '\0';
    for (const std::string& argument : command.arguments)
        bytes.append(argument).push_back('\0');
    return bytes;
}

std::optional<TRunCommand> DecodeRunCommand(std::string_view bytes) {
    TRunCommand command;
    bool isArgument = false;
    while (!bytes.empty()) {
        const std::size_t end = bytes.find('\0');
        if (end == std::string_view::npos)
            return {};
        if (end == 0 && !isArgument)
            isArgument = true;
        else
            (isArgument ? command.arguments : command.variables).emplace_back(bytes.substr(0, end));
        bytes.remove_prefix(end + 1);
    }
    return command.arguments.empty() ? std::nullopt : std::optional(std::move(command));
}
