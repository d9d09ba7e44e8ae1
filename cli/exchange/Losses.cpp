#include "cli/exchange/Losses.h"

#include <fmt/format.h>

#include <algorithm>
#include <iostream>

#include "base/DisplayText.h"
#include "jobs/JobOptions.h"

namespace vxsched {

void NoteLostOptions(const TJob& job, std::string_view target,
                     const std::vector<std::string_view>& kept, TLosses& losses) {
    for (const TJobOption& option : cJobOptions) {
        const bool isKept = option.name == cTaskOption ||
                            std::find(kept.begin(), kept.end(), option.name) != kept.end();
        if (!isKept && !option.values(job).empty())
            losses.push_back(fmt::format("{} has no --{}", target, option.name));
    }
}

void PrintLosses(const std::string& task, const TLosses& losses) {
    for (const std::string& loss : losses)
        std::cerr << fmt::format("vxsched: task \"{}\": {}\n", Show(task).string,
                                 Show(loss).string);
}

}  // namespace vxsched
