#include "cli/commands/Follow.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <iostream>

#include "base/DisplayText.h"
#include "runs/CRunWatch.h"
#include "runs/CRunningFile.h"

namespace vxsched {

namespace {

void Print(const std::string& bytes, COutput& output) {
    if (!output.IsTerminal()) {
        output.Raw(bytes);
        return;
    }
    std::size_t begin = 0;
    while (begin < bytes.size()) {
        const std::size_t end = std::min(bytes.find_first_of("\n\t", begin), bytes.size());
        output.Raw(Show(bytes.substr(begin, end - begin)).string);
        if (end < bytes.size())
            output.Raw(bytes.substr(end, 1));
        begin = end + 1;
    }
}

// Prints what is there by now: somebody may go on writing faster than it is printed.
void PrintNew(COutputReader& reader, COutput& output) {
    const std::uint64_t end = reader.Written();
    for (;;) {
        const std::string bytes = reader.Next(end);
        if (reader.Lost() > 0)
            std::cerr << fmt::format("vxsched: {} bytes are not kept any more\n", reader.Lost());
        if (bytes.empty())
            return;
        Print(bytes, output);
        output.Finish();
    }
}

}  // namespace

void PrintOutputOf(const std::filesystem::path& store, const std::string& run,
                   COutputReader& reader, bool follow, COutput& output) {
    const CRunWatch watch(store, reader.Path());
    for (;;) {
        // Asked first: what is written before the end is read after it.
        const bool goesOn = follow && IsRunning(store, run);
        PrintNew(reader, output);
        if (!goesOn)
            return;
        watch.Wait();
    }
}

}  // namespace vxsched
