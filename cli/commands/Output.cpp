// output: what a run has written.

#include <filesystem>

#include <vxsched/Error.h>
#include "base/ShellWord.h"
#include "cli/commands/Commands.h"
#include "cli/commands/Follow.h"
#include "cli/commands/RequireTask.h"
#include "runs/COutputReader.h"
#include "runs/HistoryReader.h"
#include "runs/OutputFiles.h"
#include "store/MakeError.h"

namespace vxsched {

namespace {

CError NoOutput(const TCommon& common, const std::string& name, std::size_t kept) {
    if (kept > 0)
        return MakeError(EError::cNotFound, "{} {} of \"{}\" {} kept; --run {} is the oldest", kept,
                         kept == 1 ? "output" : "outputs", name, kept == 1 ? "is" : "are", kept);
    if (ReadHistory(common.store.directory, name).runs.empty()) {
        if (RequireTask(common, name).last == TTime())
            return MakeError(EError::cNotFound,
                             "\"{}\" has not run, so it has no output; see vxsched show {}, or "
                             "launch it by vxsched run {}",
                             name, ShellWord(name), ShellWord(name));
        return MakeError(EError::cNotFound,
                         "no output of \"{}\" is kept, nor a record of a run of that name; "
                         "the runs of a renamed task have its former one: see vxsched history",
                         name);
    }
    return MakeError(EError::cNotFound, "no output of \"{}\" is kept; see vxsched history {}", name,
                     ShellWord(name));
}

}  // namespace

TExitStatus PrintOutput(const TCommon& common, const std::string& name,
                        const TOutputOptions& options, COutput& output) {
    const std::vector<TOutput> outputs = FindOutputs(common.store.directory, name);
    if (options.run > outputs.size() || options.run == 0)
        throw NoOutput(common, name, outputs.size());
    const TOutput& kept = outputs[options.run - 1];
    const std::filesystem::path store = common.store.directory;
    COutputReader reader(store / kept.path);
    PrintOutputOf(store, kept.id, reader, options.follow, output);
    return cDone;
}

}  // namespace vxsched
