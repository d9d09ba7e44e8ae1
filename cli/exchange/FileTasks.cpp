#include "cli/exchange/FileTasks.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <system_error>
#include <utility>

#include <vxsched/Error.h>
#include "cli/commands/CalendarArguments.h"
#include "cli/exchange/ReadInput.h"
#include "cli/time/PeriodFormat.h"
#include "jobs/CJobError.h"
#include "jobs/JobOptions.h"
#include "store/CSchedule.h"
#include "store/Grid.h"
#include "store/MakeError.h"

namespace vxsched {

namespace fs = std::filesystem;

namespace {

// A hundred thousand tasks. The library that reads TOML needs some fifty times the bytes.
constexpr std::size_t cMostTomlBytes = std::size_t{16} << 20;

std::vector<std::string> FilesOf(const std::string& path) {
    std::error_code error;
    if (path == cStandardInput || !fs::is_directory(path, error))
        return {path};
    std::vector<std::string> files;
    for (fs::directory_iterator entry(path, error); !error && entry != fs::directory_iterator();
         entry.increment(error)) {
        // Editors keep hidden files of their own there.
        const fs::path name = entry->path().filename();
        if (name.extension() != ".toml" || name.string().starts_with('.'))
            continue;
        // A FIFO would be waited for; a link to nothing may lead to tasks that a prune must not remove.
        if (std::error_code ignored; !entry->is_regular_file(ignored))
            throw MakeError(EError::cRefused, "{} is no file", entry->path().string());
        files.push_back(entry->path());
    }
    if (error)
        throw MakeError(EError::cRefused, "cannot read {}: {}", path, error.message());
    if (files.empty())
        throw MakeError(EError::cRefused, "{} has no file of tasks, NAME.toml", path);
    std::sort(files.begin(), files.end());
    return files;
}

// What is wrong with a value of a task. Caught in this file.
struct CWrongTask {
    std::string key;
    std::string text;
};

// The message of an error without the lines that point to a character in it.
std::string FirstLine(const std::exception& error) {
    const std::string message = error.what();
    return message.substr(0, message.find('\n'));
}

// A time that is the same whenever it is read.
TTime FixedTime(const std::string& key, const std::string& value) {
    // No multiple of a day.
    constexpr TTime cLater(std::chrono::seconds(1'000'000'007));
    try {
        const TTime time = ParseTime(value, TTime());
        if (ParseTime(value, cLater) == time)
            return time;
    } catch (const CParseError& error) {
        throw CWrongTask{key, FirstLine(error)};
    }
    throw CWrongTask{
        key, fmt::format("{}: \"{}\" depends on when the file is applied; give a date and a time, "
                         "such as 2026-12-01 02:30, or a calendar, such as daily = \"02:30\"",
                         key, value)};
}

// The key of the calendar that a task has, for the place of an error.
std::string CalendarKey(const TTaskArguments& arguments) {
    if (!arguments.calendar.empty())
        return arguments.calendar.back().first;
    return std::string(cCronOption);
}

TTaskArguments WithCalendar(const TFileTask& task) {
    TTaskArguments arguments;
    try {
        arguments = ByCron(task.arguments);
    } catch (const CUsageError& error) {
        throw CWrongTask{CalendarKey(task.arguments), error.what()};
    }
    // As a default it is for those tasks that have a calendar.
    if (!arguments.options.contains(std::string(cCronOption)) &&
        !task.places.contains(std::string(cZoneOption)))
        arguments.options.erase(std::string(cZoneOption));
    return arguments;
}

void SetProgram(const TCommon& common, const TTaskArguments& arguments, TTaskEntry& entry) {
    const bool hasShell = arguments.options.contains(std::string(cShellOption));
    if (hasShell == !arguments.command.empty())
        throw CWrongTask{"", hasShell ? "it has command and shell; give one of them"
                                      : "it has neither command nor shell"};
    try {
        MakeJob(common.store.directory, entry, arguments);
    } catch (const CJobError& error) {
        throw CWrongTask{"", error.what()};
    } catch (const CError& error) {
        throw CWrongTask{"", error.what()};
    }
}

std::uint32_t PeriodOf(const TTaskArguments& arguments) {
    try {
        return ParsePeriod(arguments.every.value_or("once"));
    } catch (const CParseError& error) {
        throw CWrongTask{"every", FirstLine(error)};
    }
}

TWantedTask WantedOf(const TCommon& common, const TFileTask& task) {
    TWantedTask wanted;
    wanted.paused = task.paused;
    wanted.entry.name = task.arguments.name;
    if (task.arguments.at)
        wanted.at = FixedTime("at", *task.arguments.at);
    if (const auto until = task.arguments.options.find(std::string(cUntilOption));
        until != task.arguments.options.end())
        FixedTime(until->first, until->second.front());
    const TTaskArguments arguments = WithCalendar(task);
    SetProgram(common, arguments, wanted.entry);
    const CSchedule schedule(wanted.entry);
    if (!schedule.Problem().empty())
        throw CWrongTask{std::string(cZoneOption), schedule.Problem()};
    wanted.entry.period = schedule.HasCalendar() ? cCalendarPeriod : PeriodOf(arguments);
    if (wanted.entry.period == 0 && !wanted.at)
        throw CWrongTask{"",
                         "it has no schedule; give it a period (every), a calendar (daily, weekly, "
                         "monthly or cron), or the time of its only launch (at)"};
    wanted.entry.next = FirstDue(wanted, Now()).value_or(wanted.at.value_or(TTime()));
    return wanted;
}

}  // namespace

std::optional<TTime> FirstDue(const TWantedTask& task, TTime now) {
    const CSchedule schedule(task.entry);
    TTime due = task.at.value_or(now);
    if (schedule.HasCalendar()) {
        due = schedule.FirstFrom(now + std::chrono::seconds(1));
    } else if (task.entry.period == 0) {
        if (due < now)
            return {};
    } else if (StepOf(task.entry.period) != std::chrono::seconds(0)) {
        due = NextOnGrid(due, StepOf(task.entry.period), now);
    }
    return schedule.IsOver(due) ? std::nullopt : std::optional(due);
}

std::vector<TTaskSource> ReadTaskSources(const std::string& path) {
    std::vector<TTaskSource> sources;
    for (const std::string& file : FilesOf(path)) {
        const std::string name = file == cStandardInput ? "standard input" : file;
        try {
            sources.push_back({name, ReadTaskFile(ReadInput(file, cMostTomlBytes))});
        } catch (const CError& error) {
            throw MakeError(error.Code(), "cannot apply {}: {}", name, error.what());
        }
    }
    return sources;
}

TWantedTasks FindWantedTasks(const TCommon& common, const std::vector<TTaskSource>& sources) {
    TWantedTasks wanted;
    std::map<std::string, std::string> places;  // of the tasks' names
    for (const TTaskSource& source : sources) {
        const auto where = [&](const TPlace& place) {
            return fmt::format("{}:{}:{}", source.name, place.line, place.column);
        };
        for (const TFileError& error : source.file.errors)
            wanted.errors.push_back(where(error.place) + ": " + error.text);
        for (const TFileTask& task : source.file.tasks) {
            const std::string place = where(task.place);
            const auto [first, isNew] = places.try_emplace(task.arguments.name, place);
            try {
                if (!isNew)
                    throw CWrongTask{"", fmt::format("the task is in {} already", first->second)};
                TWantedTask one = WantedOf(common, task);
                one.where = place;
                wanted.tasks.push_back(std::move(one));
            } catch (const CWrongTask& wrong) {
                wanted.errors.push_back(fmt::format("{}: task \"{}\": {}",
                                                    where(task.PlaceOf(wrong.key)),
                                                    task.arguments.name, wrong.text));
            }
        }
    }
    return wanted;
}

}  // namespace vxsched
