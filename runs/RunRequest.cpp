#include "runs/RunRequest.h"

#include <fmt/format.h>

#include <cstdio>

std::string EncodeRunRequest(const TRunRequest& request) {
    return fmt::format("1 {} {} {} {} {} {}", request.report, request.follower, request.trigger,
                       request.historySize, request.outputSize, static_cast<int>(request.copy));
}

std::optional<TRunRequest> DecodeRunRequest(std::string_view text) {
    TRunRequest request;
    unsigned int copy = 0;
    char trigger[16];
    int end = 0;
    const std::string string(text);
    const int count = std::sscanf(string.c_str(), "1 %d %d %15[a-z-] %lu %lu %u%n", &request.report,
                                  &request.follower, trigger, &request.historySize,
                                  &request.outputSize, &copy, &end);
    if (count != 6 || static_cast<std::size_t>(end) != string.size() ||
        copy > TRunRequest::cPrefixed)
        return {};
    request.trigger = trigger;
    request.copy = static_cast<TRunRequest::ECopy>(copy);
    return request;
}
