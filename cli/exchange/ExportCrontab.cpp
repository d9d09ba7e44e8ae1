// export --crontab: the tasks as a crontab, and what that cannot say.

#include <date/date.h>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <vxsched/Store.h>
#include "base/ShellWord.h"
#include "base/Users.h"
#include "calendar/CTimeZone.h"
#include "cli/commands/Commands.h"
#include "cli/exchange/Losses.h"
#include "cli/output/JobFormat.h"
#include "crontab/CrontabName.h"
#include "crontab/WriteCrontab.h"
#include "jobs/CJobError.h"
#include "jobs/SplitWords.h"
#include "store/StoreOwner.h"

namespace vxsched {

namespace {

using std::chrono::hours;
using std::chrono::seconds;

constexpr char cDefaultShell[] = "/bin/sh";

// The wall times of a period: the minute, and the hours of the day or the day of the week. Empty if there
// are none.
std::string ScheduleOf(std::uint32_t period, const date::sys_seconds& local) {
    const auto day = date::floor<date::days>(local);
    const date::hh_mm_ss<seconds> time(local - day);
    const auto minute = time.minutes().count();
    const auto hour = time.hours().count();
    if (period == 24)
        return fmt::format("{} {} * * *", minute, hour);
    if (period == 168)
        return fmt::format("{} {} * * {}", minute, hour, date::weekday(day).c_encoding());
    if (period == 0 || period > 24 || 24 % period != 0)
        return "";
    if (period == 1)
        return fmt::format("{} * * * *", minute);
    std::vector<long> launches;
    for (long launch = hour % period; launch < 24; launch += period)
        launches.push_back(launch);
    return fmt::format("{} {} * * *", minute, fmt::join(launches, ","));
}

// By the machine's clock, which cron follows.
std::string ScheduleOfPeriod(const TTaskEntry& task, TLosses& losses) {
    if (task.period == 0) {
        losses.emplace_back("it runs once, and a crontab has repeating jobs only");
        return "";
    }
    const CTimeZone machine = CTimeZone::OfMachine();
    const CTimeZone::TPeriod offset = machine.PeriodAt(task.next);
    std::string schedule = ScheduleOf(task.period, task.next + offset.offset);
    if (schedule.empty())
        losses.push_back(fmt::format("a crontab cannot say its period of {} hours", task.period));
    else if (offset.end < task.next + hours(24 * 366) && task.period > 1)
        losses.emplace_back("cron follows changes of the clock, which its period does not");
    if (!schedule.empty() && task.next.time_since_epoch() % seconds(60) != seconds(0))
        losses.emplace_back("cron launches it at the full minute");
    return schedule;
}

std::string ScheduleOfJob(const TTaskEntry& task, const TJob& job, TLosses& losses) {
    if (job.cron.empty())
        return ScheduleOfPeriod(task, losses);
    if (!job.zone.empty() && job.zone != CTimeZone::OfMachine().Name())
        losses.push_back(fmt::format("Debian's cron has no zone, {}, but the machine's", job.zone));
    return job.cron;
}

// The command and the input that an import of a crontab has made the text of, if it has.
std::optional<TCrontabJob> FindInput(const std::string& text, const std::string& shell) {
    try {
        const std::vector<std::string> words = SplitWords(text);
        if (words.size() == 7 && words[0] == "printf" && words[1] == "%s" && words[3] == "|" &&
            words[4] == shell && words[5] == "-c" &&
            text == fmt::format("printf %s {} | {} -c {}", ShellWord(words[2]), ShellWord(shell),
                                ShellWord(words[6])))
            return TCrontabJob{.command = words[6], .input = words[2]};
    } catch (const CJobError&) {
        // A text for the shell alone.
    }
    return {};
}

void SetCommand(const TJob& job, TCrontabJob& line) {
    const auto found = line.environment.find("SHELL");
    const std::string shell = found == line.environment.end() ? cDefaultShell : found->second;
    if (!job.shell && job.command.size() == 3 && job.command[0] == shell &&
        job.command[1] == "-c") {
        line.command = job.command[2];
    } else if (!job.shell) {
        line.command = JoinWords(job.command);
    } else if (const auto withInput = FindInput(*job.shell, shell)) {
        line.command = withInput->command;
        line.input = withInput->input;
    } else {
        line.command = shell == cDefaultShell
                           ? *job.shell
                           : fmt::format("{} -c {}", cDefaultShell, ShellWord(*job.shell));
    }
}

TCrontabJob LineOf(const TCommon& common, const TTaskEntry& task, bool isSystem, TLosses& losses) {
    const TJob job = JobOf(common.store.directory, task);
    TCrontabJob line{.schedule = ScheduleOfJob(task, job, losses), .comment = task.name};
    for (const std::string& variable : job.environment) {
        const std::size_t equals = variable.find('=');
        line.environment[variable.substr(0, equals)] = variable.substr(equals + 1);
    }
    SetCommand(job, line);
    line.environment["MAILTO"] = job.mail;
    const TUser owner = FindUser(geteuid());
    const auto home = line.environment.find("HOME");
    const bool isHome = home == line.environment.end() ? job.directory == owner.home
                                                       : job.directory == home->second;
    if (!job.directory.empty() && !isHome)
        line.command = fmt::format("cd {} && {}", ShellWord(job.directory), line.command);
    if (isSystem)
        line.user = job.user.empty() ? owner.name : job.user;
    std::vector<std::string_view> kept = {"cron", "zone", "chdir", "env", "mail", "shell"};
    if (isSystem)
        kept.emplace_back("user");
    NoteLostOptions(job, "a crontab", kept, losses);
    if (NameOf(line) != task.name)
        losses.emplace_back("its name would not be that of an import");
    return line;
}

}  // namespace

TExitStatus ExportCrontab(const TCommon& common, bool isSystem, COutput& output) {
    CCrontabWriter writer;
    bool isComplete = true;
    for (const TTaskEntry& task : CStore(common.store).Read().tasks) {
        TLosses losses;
        const TCrontabJob line = LineOf(common, task, isSystem, losses);
        if (!line.schedule.empty()) {
            const std::string reason = task.paused ? writer.AddPaused(line) : writer.Add(line);
            if (!reason.empty())
                losses = {reason};
        }
        PrintLosses(task.name, losses);
        isComplete = isComplete && losses.empty();
    }
    output.Raw(writer.Text());
    return isComplete ? cDone : cRefusedStatus;
}

}  // namespace vxsched
