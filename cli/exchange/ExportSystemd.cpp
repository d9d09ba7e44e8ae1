// export --systemd: the tasks as timers and services of systemd, and what those cannot say.

#include <date/date.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <vxsched/Error.h>
#include <vxsched/Store.h>
#include "base/AbsolutePath.h"
#include "base/CDescriptor.h"
#include "base/DisplayText.h"
#include "base/Duration.h"
#include "base/Users.h"
#include "base/WriteAll.h"
#include "cli/commands/Commands.h"
#include "cli/exchange/Losses.h"
#include "cli/output/JobFormat.h"
#include "cli/time/PeriodFormat.h"
#include "store/CSchedule.h"
#include "store/MakeError.h"
#include "units/UnitCalendar.h"
#include "units/UnitText.h"

namespace vxsched {

namespace fs = std::filesystem;

namespace {

using std::chrono::hours;
using std::chrono::seconds;

constexpr seconds cDefaultKillAfter(10);
constexpr hours cYear(24 * 366);

// The lines of a unit file.
class CUnit {
public:
    explicit CUnit(const std::string& task) {
        text = fmt::format("[Unit]\nDescription={}\n", UnitValue(Show(task).string));
    }
    void Begin(std::string_view section) { text += fmt::format("\n[{}]\n", section); }
    void Set(std::string_view name, std::string_view value) {
        text += fmt::format("{}={}\n", name, value);
    }
    const std::string& Text() const { return text; }

private:
    std::string text;
};

// In UTC: a grid of hours knows no changes of the clock.
std::optional<std::string> CalendarOfPeriod(const TTaskEntry& task) {
    const auto day = date::floor<date::days>(task.next);
    const date::hh_mm_ss<seconds> time(task.next - day);
    const std::string rest =
        fmt::format(":{:02}:{:02} UTC", time.minutes().count(), time.seconds().count());
    const auto hour = time.hours().count();
    constexpr std::uint32_t cDay = 24;
    constexpr std::uint32_t cWeek = 7 * cDay;
    if (task.period == 0) {
        const date::year_month_day date(day);
        return fmt::format("{}-{:02}-{:02} {:02}{}", static_cast<int>(date.year()),
                           static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                           hour, rest);
    }
    if (task.period == cWeek)
        return fmt::format("{} *-*-* {:02}{}", date::format("%a", date::weekday(day)), hour, rest);
    if (task.period > cDay || cDay % task.period != 0)
        return {};
    std::vector<std::string> launches;
    for (auto launch = hour % task.period; launch < cDay; launch += task.period)
        launches.push_back(fmt::format("{:02}", launch));
    return fmt::format("*-*-* {}{}", fmt::join(launches, ","), rest);
}

void SetPeriod(const TTaskEntry& task, CUnit& timer, TLosses& losses) {
    // systemd takes no calendar of the year 2200 or later.
    constexpr TTime cLast(seconds(7'226'582'400));  // 2199-01-01
    const bool isOver = task.period == 0 && task.next <= Now();
    const std::optional<std::string> calendar = CalendarOfPeriod(task);
    if (isOver || task.next < TTime() || (task.period == 0 && task.next >= cLast))
        losses.emplace_back("a timer cannot wait for its due time");
    else if (!calendar)
        losses.push_back(fmt::format("a timer has no period of {} that keeps its due times",
                                     FormatPeriod(task.period)));
    else
        timer.Set("OnCalendar", *calendar);
    if (calendar && task.period != 0 && task.next > Now() + hours(task.period))
        losses.emplace_back(
            "a timer elapses before its due time, which is more than a period ahead");
}

void SetCalendar(const TJob& job, const CSchedule& schedule, CUnit& timer, TLosses& losses) {
    if (schedule.IsAtStartup()) {
        timer.Set("OnBootSec", "1s");
        return;
    }
    for (const std::string& calendar : UnitCalendar(schedule.Expression(), job.zone))
        timer.Set("OnCalendar", calendar);
    if (DiffersAtChange(schedule.Expression(), schedule.Zone(), Now(), Now() + cYear))
        losses.emplace_back(
            "a timer does not elapse for what a change of the clock skips, nor while the clock "
            "shows "
            "the same times again");
    if (job.catchUp == cAnyDelay)
        timer.Set("Persistent", "true");
    else if (job.catchUp)
        losses.emplace_back("a timer catches up what was missed always or never, not --catch-up");
}

std::string TimerOf(const TTaskEntry& task, const TJob& job, TLosses& losses) {
    CUnit timer(task.name);
    timer.Begin("Timer");
    const CSchedule schedule(task);
    if (schedule.HasCalendar())
        SetCalendar(job, schedule, timer, losses);
    else
        SetPeriod(task, timer, losses);
    timer.Set("AccuracySec", "1s");
    if (job.randomDelay)
        timer.Set("RandomizedDelaySec", FormatDuration(*job.randomDelay));
    // A timer without this section cannot be enabled: the task is paused.
    if (!task.paused) {
        timer.Begin("Install");
        timer.Set("WantedBy", "timers.target");
    }
    return timer.Text();
}

void SetIdentity(const TCommon& common, const TJob& job, CUnit& service) {
    const TUser owner = FindUser(geteuid());
    if (!job.user.empty())
        service.Set("User", UnitValue(job.user));
    else if (geteuid() != 0)
        service.Set("User", UnitValue(owner.name));
    if (!job.group.empty())
        service.Set("Group", UnitValue(job.group));
    service.Set("WorkingDirectory", !job.directory.empty() ? UnitValue(job.directory)
                                    : !job.user.empty()
                                        ? "~"
                                        : UnitValue(AbsolutePath(common.store.directory)));
}

void SetSuccess(const TJob& job, CUnit& service, TLosses& losses) {
    if (job.success.empty())
        return;
    service.Set("SuccessExitStatus", fmt::format("{}", fmt::join(job.success, " ")));
    if (std::find(job.success.begin(), job.success.end(), 0) == job.success.end())
        losses.emplace_back("to a service the exit status 0 is always a success");
}

// Of a path or a name, which is not quoted: a backslash at the end would take the next line for its own, and blanks
// there are lost.
bool IsPlainLine(const std::string& value) {
    return value.find('\n') == std::string::npos &&
           (value.empty() ||
            (std::string_view(" \t\\").find(value.back()) == std::string_view::npos &&
             value.front() != ' ' && value.front() != '\t'));
}

// Why no units of a task are written; empty if they are.
std::string WhyNotWritten(const TJob& job, const std::string& units) {
    if (!IsUtf8(units))
        return "a unit has text in UTF-8 only";
    if (!IsPlainLine(job.user) || !IsPlainLine(job.group) || !IsPlainLine(job.directory) ||
        !std::all_of(job.environmentFiles.begin(), job.environmentFiles.end(), IsPlainLine))
        return "a unit has no path or name with a line end, or with a blank or a backslash at its "
               "end";
    if (CommandOf(job).front().find_first_of("'\"\\$") != std::string::npos)
        return "a unit has no program with a quotation mark, a backslash or a $ in its path";
    if (job.zone.find("//") != std::string::npos)
        return fmt::format("a timer has no zone {}", job.zone);
    return "";
}

bool IsVariableOfUnit(const std::string& variable) {
    const std::string_view name = std::string_view(variable).substr(0, variable.find('='));
    const auto isLetter = [](char one) {
        return (one >= 'a' && one <= 'z') || (one >= 'A' && one <= 'Z') || one == '_';
    };
    return isLetter(name.front()) && std::all_of(name.begin(), name.end(), [&](char one) {
               return isLetter(one) || (one >= '0' && one <= '9');
           });
}

void SetEnvironment(const TJob& job, CUnit& service, TLosses& losses) {
    for (const std::string& file : job.environmentFiles)
        service.Set("EnvironmentFile", UnitValue(file));
    for (const std::string& variable : job.environment) {
        if (IsVariableOfUnit(variable))
            service.Set("Environment", UnitWord(variable));
        else
            losses.push_back(fmt::format("a unit has no variable \"{}\"",
                                         variable.substr(0, variable.find('='))));
    }
}

std::string ServiceOf(const TCommon& common, const TTaskEntry& task, const TJob& job,
                      TLosses& losses) {
    CUnit service(task.name);
    service.Begin("Service");
    service.Set("Type", "oneshot");
    std::vector<std::string> words;
    for (const std::string& word : CommandOf(job))
        words.push_back(UnitArgument(word));
    service.Set("ExecStart", fmt::format("{}", fmt::join(words, " ")));
    SetIdentity(common, job, service);
    if (job.umask)
        service.Set("UMask", fmt::format("{:04o}", *job.umask));
    SetEnvironment(job, service, losses);
    if (job.timeout) {
        service.Set("TimeoutStartSec", FormatDuration(*job.timeout));
        service.Set("TimeoutStopSec", FormatDuration(job.killAfter.value_or(cDefaultKillAfter)));
    }
    SetSuccess(job, service, losses);
    NoteLostOptions(job, "a unit",
                    {"cron", "zone", "catch-up", "user", "group", "chdir", "umask", "env",
                     "env-file", "timeout", "kill-after", "random-delay", "success", "shell"},
                    losses);
    return service.Text();
}

// Files in a directory that is empty before, or made. They are removed again unless all are written.
class CNewFiles {
public:
    explicit CNewFiles(const std::string& path) {
        std::error_code error;
        fs::create_directory(path, error);
        directory = CDescriptor(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (!directory.IsOpen())
            throw SystemError("cannot write to " + path, errno);
        if (!fs::is_empty(path, error) || error)
            throw MakeError(
                EError::cRefused,
                "{} is not empty; give an empty directory, or the name of a new one, and "
                "copy the units from there",
                path);
    }
    CNewFiles(const CNewFiles&) = delete;
    CNewFiles& operator=(const CNewFiles&) = delete;
    ~CNewFiles() {
        for (const std::string& name : names)
            unlinkat(directory.Get(), name.c_str(), 0);
    }

    void Write(const std::string& name, const std::string& text) {
        const CDescriptor file(openat(directory.Get(), name.c_str(),
                                      O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
        if (!file.IsOpen())
            throw SystemError("cannot write " + name, errno);
        names.push_back(name);
        if (!WriteAll(file.Get(), text))
            throw SystemError("cannot write " + name, errno);
    }

    void Keep() { names.clear(); }

private:
    CDescriptor directory;
    std::vector<std::string> names;
};

}  // namespace

TExitStatus ExportSystemd(const TCommon& common, const std::string& path, COutput& output) {
    const TTable table = CStore(common.store).Read();
    CNewFiles files(path);
    std::set<std::string_view> names;
    bool isComplete = true;
    std::size_t count = 0;
    for (const TTaskEntry& task : table.tasks) {
        const TJob job = JobOf(common.store.directory, task);
        TLosses losses;
        const std::string timer = TimerOf(task, job, losses);
        const std::string service = ServiceOf(common, task, job, losses);
        const std::string name = UnitName(task.name);
        const bool hasLaunch = timer.find("\nOn") != std::string::npos;
        if (!names.insert(task.name).second) {
            losses = {"an earlier task has the same name"};
        } else if (name.empty()) {
            losses = {"its name is too long for one of a unit"};
        } else if (const std::string reason = WhyNotWritten(job, timer + service);
                   !reason.empty()) {
            losses = {reason};
        } else if (hasLaunch) {
            files.Write(name + ".timer", timer);
            files.Write(name + ".service", service);
            ++count;
        }
        PrintLosses(task.name, losses);
        isComplete = isComplete && losses.empty();
    }
    files.Keep();
    output.Line(Show(fmt::format("wrote {} and as many services to {}", CountOf(count, "timer"),
                                 AbsolutePath(path)))
                    .string);
    return isComplete ? cDone : cRefusedStatus;
}

}  // namespace vxsched
