// vxrun: launches one program for vxschedd or vxsched, keeps its output, and records its end. It
// outlives whoever has launched it. As the program of a task it executes the job that its argument
// describes.

#include <fmt/format.h>

#include <csignal>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "jobs/CJobError.h"
#include "jobs/JobOptions.h"
#include "runner/CCommand.h"
#include "runner/ForeignLaunch.h"
#include "runner/Request.h"
#include "runner/RunProgram.h"

using vxsched::TJob;

namespace {

// A launcher that knows the task's name has set it.
void NameTask(const TJob& job) {
    if (!job.task.empty())
        setenv("VXSCHED_TASK", job.task.c_str(), 0);
}

int RunCommand(const TRunRequest& request, const std::vector<std::string>& words) {
    std::optional<TJob> job;
    try {
        job = FindJob(request, words);
    } catch (const vxsched::CJobError& error) {
        return RefuseLine(request, words, fmt::format("cannot read the job: {}", error.what()));
    }
    if (!job)
        return RunProgram(request, CCommand(words), nullptr);
    if (IsForeignLaunch(*job, words.size())) {
        const TForeignLaunch launch = FindForeignLaunch(*job, words.front());
        if (!launch.task.empty()) {
            job->task = launch.task;
            RearmTask(launch.task, job->cron);
        }
        if (!launch.due)
            return 0;
        setenv("VXSCHED_DUE", std::to_string(launch.due->time_since_epoch().count()).c_str(), 1);
    }
    NameTask(*job);
    return RunProgram(request, CCommand(CommandOf(*job)), &*job);
}

int PrintHelp() {
    fmt::print(
        "vxrun executes a job and records how it ended. It is the program of a task, whose\n"
        "parameter is the line of options and program; vxsched create makes such tasks.\n\n"
        "Usage: vxrun [OPTIONS] -- PROGRAM [ARGUMENT...]\n"
        "       vxrun [OPTIONS] --shell TEXT\n"
        "       vxrun \"[OPTIONS] -- PROGRAM [ARGUMENT...]\"\n\n");
    for (const vxsched::TJobOption& option : vxsched::cJobOptions) {
        const std::string usage = option.implied != nullptr
                                      ? fmt::format("--{}[={}]", option.name, option.valueName)
                                      : fmt::format("--{} {}", option.name, option.valueName);
        fmt::print("  {:<23} {}\n", usage, option.help);
    }
    fmt::print(
        "\nExit status: that of the program, 128 + its signal, 127 if it was not started,\n"
        "2 for a job that cannot be read.\n");
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    IgnoreSignals();
    // Until the program runs, which it then ends.
    sigset_t held;
    sigemptyset(&held);
    sigaddset(&held, SIGTERM);
    sigprocmask(SIG_BLOCK, &held, nullptr);
    if (!IsAskedToRun() && argc == 1) {
        Warn("it needs a job: see vxrun --help");
        return cUsageStatus;
    }
    if (!IsAskedToRun() && std::string_view(argv[1]) == "--help")
        return PrintHelp();
    const std::optional<TRunRequest> request = TakeRequest(argc);
    const std::vector<std::string> words =
        request ? TakeCommand(argc, argv) : std::vector<std::string>();
    if (words.empty()) {
        Warn("the request of its launcher is of another version. Restart vxschedd.");
        return cUsageStatus;
    }
    return RunCommand(*request, words);
}
