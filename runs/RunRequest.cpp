#include "runs/RunRequest.h"

#include <fmt/format.h>

#include <cstdio>

std::string EncodeRunRequest(const TRunRequest& request) {
    return fmt::format("1 {} {} {} {}", request.report, request.trigger, request.historySize,
                       request.outputSize);
}

std::optional<TRunRequest> DecodeRunRequest(std::string_view text) {
    TRunRequest request;
    char trigger[16];
    int end = 0;
    const std::string string(text);
    const int count = std::sscanf(string.c_str(), "1 %d %15[a-z-] %lu %lu%n", &request.report,
                                  trigger, &request.historySize, &request.outputSize, &end);
    if (count != 4 || static_cast<std::size_t>(end) != string.size())
        return {};
    request.trigger = trigger;
    return request;
}
