// Files of tasks in TOML: whatever is read, each task and each error has a place, and a job is written as it
// is read.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "Require.h"
#include "cli/exchange/TaskFile.h"
#include "jobs/JobLine.h"

using vxsched::TFileTask;
using vxsched::TJob;
using vxsched::TTaskEntry;
using vxsched::TTaskFile;

// What was read of the task's command and of its options that are texts, as a job.
static TJob JobOf(const TFileTask& task) {
    TJob job;
    job.command = task.arguments.command;
    for (const vxsched::TJobOption& option : vxsched::cJobOptions) {
        const auto given = task.arguments.options.find(option.name);
        if (given == task.arguments.options.end() || option.name == vxsched::cUntilOption)
            continue;
        for (const std::string& value : given->second)
            vxsched::SetJobOption(job, option, value);
    }
    return job;
}

static void RequireSameJob(const TFileTask& task) {
    const TJob job = JobOf(task);
    if (job.command.empty() == !job.shell)
        return;
    const TTaskEntry entry{.name = task.arguments.name,
                           .next = {},
                           .last = {},
                           .period = 0,
                           .program = "/usr/bin/vxrun",
                           .parameter = vxsched::JobLine(job)};
    const TTaskFile again = vxsched::ReadTaskFile(vxsched::WriteFileTask(".", entry));
    Require(again.errors.empty(), "a written task is read");
    Require(again.tasks.size() == 1, "one task is read of one");
    Require(again.tasks.front().arguments.name == task.arguments.name, "its name is the same");
    Require(JobOf(again.tasks.front()) == job, "its job is the same");
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    const TTaskFile file = vxsched::ReadTaskFile(bytes);
    for (const vxsched::TFileError& error : file.errors)
        Require(error.place.line >= 1 && error.place.column >= 1 && !error.text.empty(),
                "an error has a place and a reason");
    if (!file.errors.empty())
        return 0;
    vxsched::TPlace latest{0, 0};
    for (const TFileTask& task : file.tasks) {
        Require(latest < task.place, "the places of tasks ascend");
        latest = task.place;
        RequireSameJob(task);
    }
    return 0;
}
