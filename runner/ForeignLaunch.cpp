#include "runner/ForeignLaunch.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <vector>

#include <vxsched/Error.h>
#include <vxsched/Table.h>
#include "base/CDescriptor.h"
#include "jobs/JobLine.h"
#include "jobs/JobOptions.h"
#include "runner/Execute.h"
#include "runner/RunProgram.h"
#include "store/CSchedule.h"
#include "store/Layout.h"
#include "store/TableFile.h"

using vxsched::CSchedule;
using vxsched::TJob;
using vxsched::TTaskEntry;
using vxsched::TTime;

bool IsForeignLaunch(const TJob& job, std::size_t arguments) {
    return !job.cron.empty() && arguments == 1 && std::getenv("VXSCHED_TASK") == nullptr &&
           std::getenv("VXSCHED_DUE") == nullptr;
}

// The task as the table has it: before the tick that launches it saves, as it was. Without one, as it is
// by a hourly launch.
static TTaskEntry TaskOf(const TJob& job, const std::string& line, TTime now) {
    try {
        const std::vector<TTaskEntry> tasks =
            vxsched::DecodeTable(vxsched::ReadTableBytes("."), now).tasks;
        const auto found = std::find_if(tasks.begin(), tasks.end(), [&](const TTaskEntry& task) {
            return task.parameter == line && vxsched::IsRunner(task.program) &&
                   (job.task.empty() || task.name == job.task);
        });
        if (found != tasks.end())
            return *found;
    } catch (const vxsched::CError& error) {
        Warn(error.what());
    }
    return {.name = job.task,
            .next = now,
            .last = now - std::chrono::hours(1),
            .period = vxsched::cCalendarPeriod,
            .program = vxsched::cRunnerProgram,
            .parameter = line};
}

TForeignLaunch FindForeignLaunch(const TJob& job, const std::string& line) {
    const TTime now = vxsched::Now();
    TTaskEntry task = TaskOf(job, line, now);
    // The tick has saved the table: the launch was for the due time before.
    if (task.next > now) {
        task.next -= std::chrono::hours(1);
        task.last = task.next - std::chrono::hours(1);
    }
    const CSchedule::TPassed passed = CSchedule(task).PassedUntil(now);
    return {task.name, passed.count == 0 ? std::nullopt : std::optional(passed.last)};
}

// The command is installed next to this program.
static std::string CommandPath() {
    std::error_code error;
    const std::filesystem::path own = std::filesystem::read_symlink("/proc/self/exe", error);
    return error ? "vxsched" : own.parent_path() / "vxsched";
}

static void ExecuteCommand(const std::vector<std::string>& words) {
    const CDescriptor nowhere(open("/dev/null", O_RDWR | O_CLOEXEC));
    dup2(nowhere.Get(), STDIN_FILENO);
    dup2(nowhere.Get(), STDOUT_FILENO);
    setsid();
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    execvp(words.front().c_str(), PointersTo(words).data());
    Warn("cannot start " + words.front() + ", which would set the task's next due time");
    _exit(cNotStartedStatus);
}

void RearmTask(const std::string& task, const std::string& cron) {
    const std::vector<std::string> words = {
        CommandPath(),   "--directory",    ".",   "edit", task, "--cron", cron,
        "--even-if-due", "--lock-timeout", "3600"};
    // The process between them ends at once, so that nobody has to wait for the other.
    const pid_t child = fork();
    if (child == 0) {
        if (fork() == 0)
            ExecuteCommand(words);
        _exit(0);
    }
    if (child != -1)
        waitpid(child, nullptr, 0);
}
