#include "jobs/JobOptions.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <charconv>
#include <system_error>

#include "base/CParseError.h"
#include "base/CParser.h"
#include "base/DisplayText.h"
#include "base/Duration.h"
#include "base/IsoTime.h"
#include "calendar/CCalendarError.h"
#include "calendar/ParseCron.h"
#include "jobs/CJobError.h"

namespace vxsched {

namespace {

using std::chrono::seconds;

// Beyond this a number of milliseconds would not fit a timer.
constexpr seconds cLongest = std::chrono::hours(24 * 3650);

std::uint32_t NumberOf(std::string_view text, int base, std::uint32_t largest, const char* what) {
    std::uint32_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
    if (error != std::errc() || end != text.data() + text.size() || number > largest)
        throw CJobError(fmt::format("give {}", what));
    return number;
}

seconds DurationOf(const std::string& value, seconds shortest = seconds(1)) {
    CParser parser("duration", value);
    try {
        const seconds duration = ReadDuration(parser, seconds(1), "");
        parser.ExpectEnd();
        if (duration >= shortest && duration <= cLongest)
            return duration;
    } catch (const CParseError&) {
        // Its message has lines of its own.
    }
    throw CJobError(fmt::format("give a duration from {}s to 3650d, such as 90s, 5m or 2h30m",
                                shortest.count()));
}

std::string RequireText(const std::string& value) {
    if (value.empty())
        throw CJobError("give a value that is not empty");
    return value;
}

std::string RequireAbsolute(const std::string& value) {
    if (!value.starts_with('/'))
        throw CJobError("give an absolute path");
    return value;
}

template <std::string TJob::*Field>
std::vector<std::string> TextIn(const TJob& job) {
    return (job.*Field).empty() ? std::vector<std::string>() : std::vector{job.*Field};
}

template <std::vector<std::string> TJob::*Field>
std::vector<std::string> TextsIn(const TJob& job) {
    return job.*Field;
}

template <std::optional<seconds> TJob::*Field>
void SetDuration(TJob& job, const std::string& value) {
    job.*Field = DurationOf(value);
}

template <std::optional<seconds> TJob::*Field>
std::vector<std::string> DurationIn(const TJob& job) {
    return job.*Field ? std::vector{FormatDuration(*(job.*Field))} : std::vector<std::string>();
}

void SetCron(TJob& job, const std::string& value) {
    try {
        ParseCron(value);
    } catch (const CCalendarError& error) {
        throw CJobError(error.what());
    }
    job.cron = value;
}

constexpr char cAny[] = "any";

// An option that may stand alone has no empty value by which to remove it.
void SetCatchUp(TJob& job, const std::string& value) {
    if (value == "no")
        job.catchUp.reset();
    else
        job.catchUp = value == cAny ? cAnyDelay : DurationOf(value);
}

std::vector<std::string> CatchUpIn(const TJob& job) {
    return job.catchUp == cAnyDelay ? std::vector<std::string>{cAny}
                                    : DurationIn<&TJob::catchUp>(job);
}

void SetUntil(TJob& job, const std::string& value) {
    const std::optional<TMoment> time = ReadUtcTime(value);
    if (!time)
        throw CJobError("give a time such as 2026-12-31T23:00:00.000Z");
    job.until = std::chrono::floor<seconds>(*time);
}

std::vector<std::string> UntilIn(const TJob& job) {
    return job.until ? std::vector{UtcTime(*job.until)} : std::vector<std::string>();
}

void SetUmask(TJob& job, const std::string& value) {
    job.umask = NumberOf(value, 8, 0777, "an octal number from 0 to 777, such as 027");
}

std::vector<std::string> UmaskIn(const TJob& job) {
    return job.umask ? std::vector{fmt::format("{:03o}", *job.umask)} : std::vector<std::string>();
}

void AddVariable(TJob& job, const std::string& value) {
    if (const std::size_t equals = value.find('='); equals == 0 || equals == std::string::npos)
        throw CJobError("give NAME=VALUE");
    job.environment.push_back(value);
}

void SetSuccess(TJob& job, const std::string& value) {
    std::vector<std::uint8_t> statuses;
    for (std::size_t begin = 0; begin <= value.size();) {
        const std::size_t end = std::min(value.find(',', begin), value.size());
        statuses.push_back(static_cast<std::uint8_t>(
            NumberOf(std::string_view(value).substr(begin, end - begin), 10, 255,
                     "exit statuses from 0 to 255 with commas, such as 0,3")));
        begin = end + 1;
    }
    job.success = statuses;
}

std::vector<std::string> SuccessIn(const TJob& job) {
    return job.success.empty() ? std::vector<std::string>()
                               : std::vector{fmt::format("{}", fmt::join(job.success, ","))};
}

// In the order of EOverlap.
constexpr std::array<std::string_view, 4> cOverlaps = {"skip", "queue", "allow", "replace"};

void SetOverlap(TJob& job, const std::string& value) {
    const auto* const found = std::find(cOverlaps.begin(), cOverlaps.end(), value);
    if (found == cOverlaps.end())
        throw CJobError("give skip, queue, allow or replace");
    job.overlap = static_cast<TJob::EOverlap>(found - cOverlaps.begin());
}

std::vector<std::string> OverlapIn(const TJob& job) {
    return job.overlap == TJob::cSkip ? std::vector<std::string>()
                                      : std::vector{std::string(cOverlaps.at(job.overlap))};
}

template <std::string TJob::*Field>
void SetText(TJob& job, const std::string& value) {
    job.*Field = RequireText(value);
}

// It becomes a header of a mail.
void SetMail(TJob& job, const std::string& value) {
    const bool isSafe =
        std::all_of(value.begin(), value.end(), [](char one) { return one >= ' ' && one <= '~'; });
    if (value.empty() || !isSafe || value.size() > 900)
        throw CJobError("give an address of ASCII characters, such as root or admin@example.org");
    job.mail = value;
}

void SetRetries(TJob& job, const std::string& value) {
    job.retries = NumberOf(value, 10, 100, "a number from 0 to 100");
}

std::vector<std::string> RetriesIn(const TJob& job) {
    return job.retries == 0 ? std::vector<std::string>()
                            : std::vector{fmt::format("{}", job.retries)};
}

void SetBackoff(TJob& job, const std::string& value) {
    job.backoff = DurationOf(value, seconds(0));
}

std::vector<std::string> BackoffIn(const TJob& job) {
    return job.backoff == seconds(0) ? std::vector<std::string>{"0s"}
                                     : DurationIn<&TJob::backoff>(job);
}

std::vector<std::string> ShellIn(const TJob& job) {
    return job.shell ? std::vector{*job.shell} : std::vector<std::string>();
}

}  // namespace

constexpr bool cOnce = false;
constexpr bool cRepeatable = true;

// In the order in which a line has them.
const std::array<TJobOption, 23> cJobOptions = {{
    {"task", "NAME", "The task's name in records", cOnce,
     [](TJob& job, const std::string& value) { job.task = RequireText(value); },
     TextIn<&TJob::task>},
    {"cron", "EXPRESSION", "The calendar of launches, in place of a period", cOnce, SetCron,
     TextIn<&TJob::cron>},
    {"zone", "ZONE", "Its time zone, such as Europe/Berlin; default the machine's", cOnce,
     [](TJob& job, const std::string& value) { job.zone = RequireText(value); },
     TextIn<&TJob::zone>},
    {"catch-up", "DURATION", "Launch once what was missed, if no later than that", cOnce,
     SetCatchUp, CatchUpIn, cAny},
    {"until", "TIME", "Remove the task after its last launch before this time", cOnce, SetUntil,
     UntilIn},
    {"user", "USER", "As whom the program runs", cOnce,
     [](TJob& job, const std::string& value) { job.user = RequireText(value); },
     TextIn<&TJob::user>},
    {"group", "GROUP", "The program's group; default the user's", cOnce,
     [](TJob& job, const std::string& value) { job.group = RequireText(value); },
     TextIn<&TJob::group>},
    {"chdir", "DIR", "Where the program runs", cOnce,
     [](TJob& job, const std::string& value) { job.directory = RequireAbsolute(value); },
     TextIn<&TJob::directory>},
    {"umask", "MODE", "The program's file mode creation mask, octal", cOnce, SetUmask, UmaskIn},
    {"env", "NAME=VALUE", "A variable of the program; repeatable", cRepeatable, AddVariable,
     TextsIn<&TJob::environment>},
    {"env-file", "FILE", "A file of NAME=VALUE lines; repeatable", cRepeatable,
     [](TJob& job, const std::string& value) {
         job.environmentFiles.push_back(RequireAbsolute(value));
     },
     TextsIn<&TJob::environmentFiles>},
    {"timeout", "DURATION", "Terminate the job after this time", cOnce, SetDuration<&TJob::timeout>,
     DurationIn<&TJob::timeout>},
    {"kill-after", "DURATION", "Kill what is left of it so much later; default 10s", cOnce,
     SetDuration<&TJob::killAfter>, DurationIn<&TJob::killAfter>},
    {"overlap", "WHAT", "While a run is under way: skip (default), queue, allow, replace", cOnce,
     SetOverlap, OverlapIn},
    {"random-delay", "DURATION", "Wait before a launch by the schedule, at random up to this",
     cOnce, SetDuration<&TJob::randomDelay>, DurationIn<&TJob::randomDelay>},
    {"success", "STATUSES", "The good exit statuses; default 0", cOnce, SetSuccess, SuccessIn},
    {"retry", "N", "Attempt a failed run so many times more", cOnce, SetRetries, RetriesIn},
    {"backoff", "DURATION", "Wait so long before, then twice as long; default 1m", cOnce,
     SetBackoff, BackoffIn},
    {"on-failure", "COMMAND", "Execute it after a run that has failed", cOnce,
     SetText<&TJob::onFailure>, TextIn<&TJob::onFailure>},
    {"on-success", "COMMAND", "Execute it after one that has not", cOnce, SetText<&TJob::onSuccess>,
     TextIn<&TJob::onSuccess>},
    {"on-recovery", "COMMAND", "Execute it after the first such one since a failure", cOnce,
     SetText<&TJob::onRecovery>, TextIn<&TJob::onRecovery>},
    {"mail", "ADDRESS", "Write there of a failure and of its end", cOnce, SetMail,
     TextIn<&TJob::mail>},
    {"shell", "TEXT", "A text for /bin/sh -c in place of a program", cOnce,
     [](TJob& job, const std::string& value) { job.shell = RequireText(value); }, ShellIn},
}};

void SetJobOption(TJob& job, const TJobOption& option, const std::string& value) {
    try {
        if (value.find('\0') != std::string::npos)
            throw CJobError("give a value without zero bytes");
        option.set(job, value);
    } catch (const CJobError& error) {
        throw CJobError(
            fmt::format("--{} \"{}\": {}", option.name, ShowBeginning(value), error.what()));
    }
}

// Takes over what the other options make of the job.
void ClearJobOption(TJob& job, const TJobOption& option) {
    TJob cleared;
    cleared.command = job.command;
    for (const TJobOption& other : cJobOptions) {
        if (&other == &option)
            continue;
        for (const std::string& value : other.values(job))
            other.set(cleared, value);
    }
    job = cleared;
}

}  // namespace vxsched
