#include "cli/commands/Follow.h"

#include <fmt/format.h>

#include <cstdint>
#include <iostream>

#include "base/CShownStream.h"
#include "runs/CRunWatch.h"
#include "runs/RunningRuns.h"

namespace vxsched {

namespace {

// Prints what is there by now: somebody may go on writing faster than it is printed.
void PrintNew(COutputReader& reader, CShownStream& shown, COutput& output) {
    const std::uint64_t end = reader.Written();
    for (;;) {
        const std::string bytes = reader.Next(end);
        if (reader.Lost() > 0)
            std::cerr << fmt::format("vxsched: {} bytes are not kept any more\n", reader.Lost());
        if (bytes.empty())
            return;
        output.Raw(output.IsTerminal() ? shown.Add(bytes) : bytes);
        output.Finish();
    }
}

}  // namespace

void PrintOutputOf(const std::filesystem::path& store, const std::string& run,
                   COutputReader& reader, bool follow, COutput& output) {
    const CRunWatch watch(store, reader.Path());
    CShownStream shown;
    for (;;) {
        // Asked first: what is written before the end is read after it.
        const bool goesOn = follow && IsRunning(store, run);
        PrintNew(reader, shown, output);
        if (!goesOn)
            break;
        watch.Wait();
    }
    output.Raw(shown.End());
}

}  // namespace vxsched
