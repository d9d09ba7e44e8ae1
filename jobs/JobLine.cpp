#include "jobs/JobLine.h"

#include <fmt/format.h>

#include <algorithm>
#include <optional>

#include "base/DisplayText.h"
#include "base/ShellWord.h"
#include "jobs/CJobError.h"
#include "jobs/JobOptions.h"
#include "jobs/SplitWords.h"

namespace vxsched {

bool IsRunner(std::string_view program) {
    constexpr std::string_view cName = "vxrun";
    return program.substr(program.rfind('/') + 1) == cName;
}

namespace {

const TJobOption& OptionOf(std::string_view name) {
    for (const TJobOption& option : cJobOptions) {
        if (name == option.name)
            return option;
    }
    throw CJobError(
        fmt::format("unknown option \"--{}\"; write -- before the program", ShowBeginning(name)));
}

// The value of an option that does not have it in its own word.
std::string ValueOf(const TJobOption& option, const std::vector<std::string>& words,
                    std::size_t& next) {
    if (option.implied != nullptr)
        return option.implied;
    if (next == words.size())
        throw CJobError(
            fmt::format("--{} has no value; give it a {}", option.name, option.valueName));
    return words[next++];
}

}  // namespace

std::vector<std::string> ReadOptions(const std::vector<std::string>& words,
                                     const TOptionTaker& take) {
    std::size_t next = 0;
    while (next < words.size() && words[next].starts_with('-')) {
        const std::string& word = words[next++];
        if (word == "--")
            break;
        if (!word.starts_with("--"))
            throw CJobError(fmt::format("unknown option \"{}\"; write -- before the program",
                                        ShowBeginning(word)));
        const std::size_t equals = std::min(word.find('='), word.size());
        const TJobOption& option = OptionOf(std::string_view(word).substr(2, equals - 2));
        take(option, equals < word.size() ? word.substr(equals + 1) : ValueOf(option, words, next));
    }
    return {words.begin() + static_cast<std::ptrdiff_t>(next), words.end()};
}

TJob ParseJob(const std::vector<std::string>& arguments) {
    TJob job;
    std::vector<std::string_view> given;
    job.command = ReadOptions(arguments, [&](const TJobOption& option, const std::string& value) {
        if (!option.isRepeatable &&
            std::find(given.begin(), given.end(), option.name) != given.end())
            throw CJobError(fmt::format("--{} is given twice; give it once", option.name));
        given.emplace_back(option.name);
        SetJobOption(job, option, value);
    });
    if (job.shell && !job.command.empty())
        throw CJobError(fmt::format("--shell and a program, \"{}\"; give one of them",
                                    ShowBeginning(job.command.front())));
    if (!job.shell && job.command.empty())
        throw CJobError("there is no program; give its path after --, or a text by --shell");
    if (!job.shell && job.command.front().empty())
        throw CJobError("the program's path is empty; give one after --");
    return job;
}

TJob ReadJobLine(std::string_view line) {
    return ParseJob(SplitWords(line));
}

// The value of an option that may stand alone is part of its word.
static std::string OptionInLine(const TJobOption& option, const std::string& value) {
    if (option.implied == nullptr)
        return fmt::format("--{} {}", option.name, ShellWord(value));
    return value == option.implied ? fmt::format("--{}", option.name)
                                   : fmt::format("--{}={}", option.name, value);
}

std::string JobLine(const TJob& job) {
    std::string line;
    for (const TJobOption& option : cJobOptions) {
        for (const std::string& value : option.values(job))
            line += OptionInLine(option, value) + ' ';
    }
    if (job.shell)
        return line.substr(0, line.size() - 1);
    return line + "-- " + JoinWords(job.command);
}

}  // namespace vxsched
