#include "runner/TellOfEnd.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <string_view>
#include <system_error>

#include <vxsched/Error.h>
#include "base/DisplayText.h"
#include "runner/Hook.h"
#include "runner/Mail.h"
#include "runs/HistoryReader.h"

using vxsched::TJob;

static constexpr std::chrono::minutes cHookLimit(1);

bool IsEndTold(const TJob& job) {
    return !job.onFailure.empty() || !job.onSuccess.empty() || !job.onRecovery.empty() ||
           !job.mail.empty();
}

// One that has ended, and that nobody has stopped.
static bool TellsOfTheTask(const TRunRecord& run) {
    switch (run.outcome) {
        case TRunRecord::cExited:
        case TRunRecord::cKilled:
        case TRunRecord::cNotStarted:
        case TRunRecord::cRunnerDied:
            return run.stoppedBy.empty();
        default:
            return false;
    }
}

// The run before this one, not an earlier attempt of it.
static bool HasFormerFailed(const TRunRecord& run) {
    if (!run.task)
        return false;
    const std::string first = run.retryOf.empty() ? run.id : run.retryOf;
    const std::vector<TRunRecord> runs = vxsched::ReadHistory(".", run.task).runs;
    const auto former = std::find_if(runs.rbegin(), runs.rend(), [&](const TRunRecord& one) {
        return TellsOfTheTask(one) && one.id != first && one.retryOf != first;
    });
    return former != runs.rend() && !HasNoFailure(*former);
}

static bool IsRecovery(const TJob& job, const TRunRecord& run) {
    if (job.onRecovery.empty() && job.mail.empty())
        return false;
    try {
        return HasFormerFailed(run);
    } catch (const vxsched::CError&) {
        return false;
    }
}

static void SetVariable(std::vector<std::string>& environment, std::string_view name,
                        const std::string& value) {
    const std::string beginning = fmt::format("{}=", name);
    std::erase_if(environment, [&](const std::string& one) { return one.starts_with(beginning); });
    environment.push_back(beginning + value);
}

static TExecution WithVariables(TExecution execution, const TRunRecord& run) {
    const auto set = [&](std::string_view name, const std::string& value) {
        SetVariable(execution.environment, name, value);
    };
    if (run.task)
        set("VXSCHED_TASK", *run.task);
    if (run.due)
        set("VXSCHED_DUE", fmt::format("{}", run.due->time_since_epoch().count()));
    set("VXSCHED_OUTCOME", OutcomeName(run));
    if (run.outcome == TRunRecord::cExited)
        set("VXSCHED_STATUS", fmt::format("{}", run.number));
    if (run.outcome == TRunRecord::cKilled)
        set("VXSCHED_STATUS", fmt::format("{}", 128 + run.number));
    if (run.started && run.ended)
        set("VXSCHED_DURATION",
            fmt::format("{:.3f}",
                        std::chrono::duration<double>(*run.ended - *run.started).count()));
    set("VXSCHED_ATTEMPT", fmt::format("{}", run.attempt));
    if (!run.error.empty())
        set("VXSCHED_ERROR", run.error);
    std::error_code ignored;
    if (!run.output.empty())
        set("VXSCHED_OUTPUT", std::filesystem::absolute(run.output, ignored));
    return execution;
}

void TellOfEnd(const TJob& job, const TRunRecord& run, const TExecution& execution,
               const std::function<void(const std::string&)>& logWarning) {
    if (!run.stoppedBy.empty())
        return;
    const bool isGood = HasNoFailure(run);
    const bool isRecovery = isGood && IsRecovery(job, run);
    const TExecution told = WithVariables(execution, run);
    const auto execute = [&](const char* option, const std::string& command,
                             const std::string& input) {
        const std::string failure = RunHook(command, told, input, cHookLimit);
        if (!failure.empty())
            logWarning(fmt::format("--{} of task \"{}\": {}", option,
                                   vxsched::Show(run.task.value_or("?")).string, failure));
    };
    if (!isGood && !job.onFailure.empty())
        execute("on-failure", job.onFailure, "");
    if (isGood && !job.onSuccess.empty())
        execute("on-success", job.onSuccess, "");
    if (isRecovery && !job.onRecovery.empty())
        execute("on-recovery", job.onRecovery, "");
    if (!job.mail.empty() && (!isGood || isRecovery))
        execute("mail", "exec sendmail -t -i", MailAbout(run, job.mail, isRecovery));
}
