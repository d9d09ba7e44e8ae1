#include "crontab/WriteCrontab.h"

#include <fmt/format.h>

#include <optional>

#include "crontab/CrontabCommand.h"

namespace vxsched {

namespace {

constexpr char cShell[] = "SHELL";

// What cron reads as the variable; empty if nothing is read so.
std::string LineOf(const std::string& name, const std::string& value) {
    for (const char* const quote : {"", "\"", "'"}) {
        std::string line = fmt::format("{}={}{}{}\n", name, quote, value, quote);
        const TCrontab read = ReadCrontab(line + "@daily x\n", false);
        if (read.wrong.empty() && read.jobs.size() == 1 &&
            read.jobs.front().environment == std::map<std::string, std::string>{{name, value}})
            return line;
    }
    return "";
}

// The variables that are to be unset for the command.
std::string UnsetFor(const std::map<std::string, std::string>& present,
                     const std::map<std::string, std::string>& wanted) {
    std::string names;
    for (const auto& [name, value] : present) {
        if (!wanted.contains(name) && name != cShell && name != "MAILTO")
            names += ' ' + name;
    }
    return names.empty() ? "" : "unset" + names + "; ";
}

}  // namespace

std::string CCrontabWriter::Add(const TCrontabJob& job) {
    return AddLine(job, "");
}

std::string CCrontabWriter::AddPaused(const TCrontabJob& job) {
    return AddLine(job, "#");
}

std::string CCrontabWriter::AddLine(const TCrontabJob& job, const char* begin) {
    std::string lines;
    std::map<std::string, std::string> wanted = job.environment;
    if (environment.contains(cShell))
        wanted.try_emplace(cShell, "/bin/sh");
    for (const auto& [name, value] : wanted) {
        const auto found = environment.find(name);
        if (found != environment.end() && found->second == value)
            continue;
        const std::string line = LineOf(name, value);
        if (line.empty())
            return fmt::format("a crontab cannot say its variable {}", name);
        lines += line;
    }
    const std::optional<std::string> command =
        WriteCrontabCommand({UnsetFor(environment, wanted) + job.command, job.input});
    if (!command)
        return "a crontab cannot say a command of several lines, or an input without a line end";
    const std::string line =
        fmt::format("{} {}{}{}\n", job.schedule, job.user, job.user.empty() ? "" : " ", *command);
    const TCrontab read = ReadCrontab(line, !job.user.empty());
    if (!read.wrong.empty())
        return read.wrong.front().text;
    if (read.jobs.size() != 1)
        return "cron would make no job of it";
    text += (text.empty() ? "" : "\n") + lines;
    if (!job.comment.empty() && job.comment.find('\n') == std::string::npos)
        text += fmt::format("# {}\n", job.comment);
    text += begin + line;
    for (const auto& [name, value] : wanted)
        environment[name] = value;
    return "";
}

}  // namespace vxsched
