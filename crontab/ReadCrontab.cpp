#include "crontab/ReadCrontab.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <utility>

#include "base/DisplayText.h"
#include "base/Users.h"
#include "calendar/CCalendarError.h"
#include "calendar/CNeverComes.h"
#include "calendar/ParseCron.h"
#include "crontab/CrontabCommand.h"

namespace vxsched {

namespace {

// cron's own limit for the rest of a line.
constexpr std::size_t cLongestCommand = 998;
// Beyond any crontab; what is longer would be copied with each job.
constexpr std::size_t cLongestVariable = 4096;

constexpr std::string_view cBlanks = " \t";
// As isspace() has them.
constexpr std::string_view cSpaces = " \t\r\v\f";

std::string_view WithoutBlanks(std::string_view text) {
    const std::size_t begin = text.find_first_not_of(cBlanks);
    return begin == std::string_view::npos ? "" : text.substr(begin);
}

// Takes the text up to the next blank off the front of `text`, and the blanks after it.
std::string_view TakeWord(std::string_view& text) {
    const std::string_view word = text.substr(0, text.find_first_of(cBlanks));
    text = WithoutBlanks(text.substr(word.size()));
    return word;
}

using TVariable = std::pair<std::string, std::string>;

std::string_view WithoutSpaces(std::string_view text) {
    const std::size_t begin = text.find_first_not_of(cSpaces);
    return begin == std::string_view::npos ? "" : text.substr(begin);
}

// A text in quotes, or up to a blank or `end`; the rest stays in `text`. Empty if a quote is not closed.
std::optional<std::string> TakeQuoted(std::string_view& text, bool isName) {
    const char quote = text.front();
    if (quote == '"' || quote == '\'') {
        const std::size_t end = text.find(quote, 1);
        if (end == std::string_view::npos)
            return {};
        std::string inside(text.substr(1, end - 1));
        text.remove_prefix(end + 1);
        return inside;
    }
    const std::size_t end =
        isName ? std::min(text.find_first_of(std::string(cSpaces) + '='), text.size())
               : text.find_last_not_of(cSpaces) + 1;
    std::string taken(text.substr(0, end));
    text.remove_prefix(end);
    return taken;
}

// NAME = VALUE, both with or without quotes. A value that is empty has quotes, and after quotes there is
// nothing else.
std::optional<TVariable> ReadVariable(std::string_view line) {
    line = WithoutSpaces(line);
    if (line.empty())
        return {};
    const std::optional<std::string> name = TakeQuoted(line, true);
    line = WithoutSpaces(line);
    if (!name || line.empty() || line.front() != '=')
        return {};
    line = WithoutSpaces(line.substr(1));
    if (line.empty())
        return {};
    std::optional<std::string> value = TakeQuoted(line, false);
    if (!value || !WithoutSpaces(line).empty())
        return {};
    return TVariable{*name, std::move(*value)};
}

bool IsWeekday(std::string_view word) {
    constexpr std::array cDays = {"mon", "tue", "wed", "thu", "fri", "sat", "sun"};
    std::string lower(word.substr(0, 3));
    std::transform(lower.begin(), lower.end(), lower.begin(), [](char one) {
        return one >= 'A' && one <= 'Z' ? static_cast<char>(one + 32) : one;
    });
    return (word.size() == 3 || (word.size() > 3 && (word[3] == '-' || word[3] == ','))) &&
           std::find(cDays.begin(), cDays.end(), lower) != cDays.end();
}

// Whether the word can only be the name of a user: there are programs of such names, as mail.
bool IsUser(std::string_view word) {
    if (word.find('/') != std::string_view::npos ||
        word.find_first_not_of("0123456789") == std::string_view::npos ||
        !FindUserId(std::string(word)))
        return false;
    constexpr std::array cDirectories = {"/usr/bin/", "/bin/", "/usr/sbin/", "/sbin/"};
    return std::none_of(cDirectories.begin(), cDirectories.end(), [&](const char* directory) {
        return access((directory + std::string(word)).c_str(), X_OK) == 0;
    });
}

class CReader {
public:
    CReader(std::string_view whole, bool withUsers, EDialect ofCron)
        : text(whole), hasUsers(withUsers), dialect(ofCron) {}

    TCrontab Read() {
        while (!text.empty()) {
            ++line;
            const std::size_t end = text.find('\n');
            hasLineEnd = end != std::string_view::npos;
            const std::string_view whole = text.substr(0, end);
            text.remove_prefix(hasLineEnd ? end + 1 : text.size());
            ReadLine(whole);
        }
        return std::move(crontab);
    }

private:
    void Wrong(std::string reason) { crontab.wrong.push_back({line, std::move(reason)}); }
    void Warn(std::string reason) { crontab.warnings.push_back({line, std::move(reason)}); }

    void ReadLine(std::string_view whole) {
        const std::string_view content = WithoutBlanks(whole);
        if (content.empty() || content.front() == '#') {
            comment = content.empty() ? "" : std::string(WithoutBlanks(content.substr(1)));
            return;
        }
        const std::string above = std::exchange(comment, "");
        if (content.find('\0') != std::string_view::npos)
            return Wrong("it has a zero byte");
        if (!hasLineEnd)
            return Wrong("the last line has no line end, so cron does not read it; add one");
        if (const std::optional<TVariable> variable = ReadVariable(whole))
            return TakeVariable(*variable);
        ReadJob(content, above);
    }

    void TakeVariable(const TVariable& variable) {
        const auto& [name, value] = variable;
        if (name.empty() || name.find('=') != std::string::npos)
            return Warn("a variable without a name has no effect");
        if (name.size() + value.size() > cLongestVariable)
            return Wrong(fmt::format("a variable of more than {} bytes", cLongestVariable));
        if (name == "CRON_TZ" && dialect == EDialect::cCronie) {
            zone = value;
            return;
        }
        if (name == "CRON_TZ" || name == "TZ")
            Warn(
                fmt::format("Debian's cron does not move the schedule for {}: the jobs are "
                            "launched by the machine's zone; for cronie's, --dialect cronie",
                            name));
        environment[name] = value;
    }

    void ReadJob(std::string_view rest, const std::string& above) {
        TCrontabJob job{.line = line, .zone = zone, .environment = environment, .comment = above};
        job.schedule = TakeWord(rest);
        if (!job.schedule.starts_with('@')) {
            for (int field = 1; field < 5 && !rest.empty(); ++field)
                job.schedule.append(" ").append(TakeWord(rest));
        }
        if (!IsLaunched(job.schedule))
            return;
        if (!job.schedule.starts_with('@') && rest.starts_with('*'))
            return Wrong("the command begins with *: a sixth field, which cron does not have");
        if (hasUsers) {
            job.user = TakeWord(rest);
            if (!FindUserId(job.user))
                return Wrong(fmt::format("there is no user \"{}\"", ShowBeginning(job.user)));
        }
        if (rest.size() > cLongestCommand)
            return Wrong(fmt::format("the command has {} bytes, and cron takes {} at most",
                                     rest.size(), cLongestCommand));
        TCrontabCommand command = ReadCrontabCommand(rest);
        job.command = std::move(command.command);
        job.input = std::move(command.input);
        if (WithoutSpaces(job.command).empty())
            return Warn(job.input ? "there is an input and no command, so nothing is done; no task "
                                    "is made of it"
                                  : "there is no command; no task is made of it");
        WarnOf(job);
        crontab.jobs.push_back(std::move(job));
    }

    // Notes why not.
    bool IsLaunched(const std::string& schedule) {
        try {
            const CCronExpression expression = ParseCron(schedule);
            const bool isNickname = schedule.starts_with('@');
            if (isNickname && std::any_of(schedule.begin(), schedule.end(),
                                          [](char one) { return one >= 'A' && one <= 'Z'; }))
                Wrong("cron knows such a name in small letters only");
            else if (expression.Field(ECronField::cDay).isLastDay)
                Wrong("cron has no L for the last day of the month");
            else
                return true;
        } catch (const CNeverComes& error) {
            Warn(
                fmt::format("{}; cron never launches it, and no task is made of it", error.what()));
        } catch (const CCalendarError& error) {
            Wrong(error.what());
        }
        return false;
    }

    void WarnOf(const TCrontabJob& job) {
        std::string_view rest = job.command;
        const std::string_view first = TakeWord(rest);
        if (job.command.ends_with('\\'))
            Warn("the line ends in a backslash, and cron continues no line");
        if (job.command.ends_with('\r'))
            Warn(
                "the line ends in a carriage return, which the command gets; convert the file to "
                "Unix line ends");
        if (!hasUsers && !rest.empty() && IsUser(first))
            Warn(
                fmt::format("the command begins with the name of a user, {}; a user's crontab has "
                            "no such column (--system)",
                            ShowBeginning(first)));
        if (IsWeekday(first))
            Warn(fmt::format("the command begins with a weekday, {}; cron would execute it",
                             ShowBeginning(first)));
        for (const std::string_view mark : {"{{", "<%", "@@", "%%("}) {
            if (job.command.find(mark) != std::string::npos)
                Warn(fmt::format("the command has {}, as a template does that was not filled in",
                                 mark));
        }
    }

    std::string_view text;  // what is left
    const bool hasUsers;
    const EDialect dialect;
    std::size_t line = 0;
    bool hasLineEnd = false;
    std::string comment;  // the line above, if it is one
    std::map<std::string, std::string> environment;
    std::string zone;
    TCrontab crontab;
};

}  // namespace

TCrontab ReadCrontab(std::string_view text, bool hasUsers, EDialect dialect) {
    return CReader(text, hasUsers, dialect).Read();
}

}  // namespace vxsched
