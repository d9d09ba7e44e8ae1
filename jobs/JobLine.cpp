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

// The options of a command line, which end at `--` and at the first argument that is none.
class COptionParser {
public:
    explicit COptionParser(const std::vector<std::string>& parsed) : arguments(parsed) {}

    void ParseInto(TJob& job) {
        std::vector<std::string_view> given;
        while (next < arguments.size() && arguments[next].starts_with('-')) {
            const std::string& argument = arguments[next++];
            if (argument == "--")
                return;
            if (!argument.starts_with("--"))
                throw CJobError(fmt::format("unknown option \"{}\"; write -- before the program",
                                            ShowBeginning(argument)));
            const std::size_t equals = std::min(argument.find('='), argument.size());
            const TJobOption& option = OptionOf(std::string_view(argument).substr(2, equals - 2));
            if (!option.isRepeatable &&
                std::find(given.begin(), given.end(), option.name) != given.end())
                throw CJobError(fmt::format("--{} is given twice; give it once", option.name));
            given.emplace_back(option.name);
            SetJobOption(job, option,
                         equals < argument.size() ? argument.substr(equals + 1) : Value(option));
        }
    }

    std::vector<std::string> Rest() const {
        return {arguments.begin() + static_cast<std::ptrdiff_t>(next), arguments.end()};
    }

private:
    std::string Value(const TJobOption& option) {
        if (option.implied != nullptr)
            return option.implied;
        if (next == arguments.size())
            throw CJobError(
                fmt::format("--{} has no value; give it a {}", option.name, option.valueName));
        return arguments[next++];
    }

    const std::vector<std::string>& arguments;
    std::size_t next = 0;
};

}  // namespace

TJob ParseJob(const std::vector<std::string>& arguments) {
    TJob job;
    COptionParser parser(arguments);
    parser.ParseInto(job);
    job.command = parser.Rest();
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
