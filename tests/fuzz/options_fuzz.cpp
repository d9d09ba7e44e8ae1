// Fuzzes the command lines of vxsched and of vxschedd: any bytes, an argument up to each zero byte.
// The commands of vxsched are replaced here; they only parse their times and keep their arguments.

#include <iostream>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "cli/commands/Commands.h"
#include "cli/commands/Interruption.h"
#include "cli/time/PastTime.h"
#include "cli/time/PeriodFormat.h"
#include "fuzz/Require.h"
#include "host/CHostError.h"
#include "host/HostOptions.h"
#include "store/StoreOwner.h"

// The target stays what it is, whoever owns the directory that it is given.
#define BecomeForeignOwner(directory) static_cast<void>(directory)
#define main VxschedMain
#include "cli/ArgumentChecks.cpp"
#include "cli/CCommandLine.cpp"
#include "cli/ChangeOptions.cpp"
#include "cli/QueryOptions.cpp"
#include "cli/StoreOptions.cpp"
#include "cli/main.cpp"
#undef main
#undef BecomeForeignOwner

namespace vxsched {

// The arguments of the last command that takes any.
static std::vector<std::string> gTaken;

TExitStatus List(const TCommon& /*common*/, bool /*namesOnly*/, COutput& /*output*/) {
    return cDone;
}
TExitStatus ShowTask(const TCommon& /*common*/, const std::string& name, COutput& /*output*/) {
    gTaken = {name};
    return cDone;
}
TExitStatus Next(const TCommon& /*common*/, std::optional<std::size_t> /*count*/,
                 const std::string& until, COutput& /*output*/) {
    if (!until.empty())
        ParseTime(until, TTime());
    return cDone;
}
TExitStatus Calendar(const TCommon& /*common*/, const TCalendarOptions& options,
                     COutput& /*output*/) {
    gTaken = {options.expression};
    ParseTime(options.from.empty() ? "now" : options.from, TTime());
    return cDone;
}
TExitStatus History(const TCommon& /*common*/, const std::string& name,
                    const THistoryOptions& options, COutput& /*output*/) {
    gTaken = {name};
    if (!options.since.empty())
        ParsePastTime(options.since, TTime());
    return cDone;
}
TExitStatus Status(const TCommon& /*common*/, COutput& /*output*/) {
    return cDone;
}
TExitStatus CheckTable(const TCommon& /*common*/, const std::string& file, COutput& /*output*/) {
    gTaken = {file};
    return cDone;
}
TExitStatus Repair(const TCommon& /*common*/, COutput& /*output*/) {
    return cDone;
}
TExitStatus Export(const TCommon& /*common*/, COutput& /*output*/) {
    return cDone;
}
TExitStatus ExportCrontab(const TCommon& /*common*/, bool /*isSystem*/, COutput& /*output*/) {
    return cDone;
}
TExitStatus ExportToml(const TCommon& /*common*/, COutput& /*output*/) {
    return cDone;
}
TExitStatus ExportSystemd(const TCommon& /*common*/, const std::string& path, COutput& /*output*/) {
    gTaken = {path};
    return cDone;
}
TExitStatus Apply(const TCommon& /*common*/, const std::string& path, bool /*prune*/,
                  COutput& /*output*/) {
    gTaken = {path};
    return cDone;
}
TExitStatus Import(const TCommon& /*common*/, const std::string& file, EImport /*how*/,
                   COutput& /*output*/) {
    gTaken = {file};
    return cDone;
}
TExitStatus Create(const TCommon& /*common*/, const TTaskArguments& task, bool /*replace*/,
                   COutput& /*output*/) {
    gTaken = {task.name};
    gTaken.insert(gTaken.end(), task.command.begin(), task.command.end());
    ParseTime(task.at.value_or("now"), TTime());
    ParsePeriod(task.every.value_or("once"));
    return cDone;
}
TExitStatus Edit(const TCommon& common, const TSelection& selection, const TTaskArguments& task,
                 COutput& output) {
    Create(common, task, false, output);
    gTaken.insert(gTaken.end(), selection.patterns.begin(), selection.patterns.end());
    return cDone;
}
TExitStatus Remove(const TCommon& /*common*/, const TSelection& selection, COutput& /*output*/) {
    gTaken = selection.patterns;
    return cDone;
}
TExitStatus Pause(const TCommon& common, const TSelection& selection, COutput& output) {
    return Remove(common, selection, output);
}
TExitStatus Resume(const TCommon& common, const TSelection& selection, COutput& output) {
    return Remove(common, selection, output);
}
TExitStatus SetPeriod(const TCommon& common, const TSelection& selection, const std::string& every,
                      COutput& output) {
    Remove(common, selection, output);
    gTaken.push_back(every);
    ParsePeriod(every);
    return cDone;
}
TExitStatus ImportCrontab(const TCommon& /*common*/, const std::string& file,
                          const TCrontabOptions& options, bool /*merge*/, COutput& /*output*/) {
    gTaken = {file, options.user};
    return cDone;
}
TExitStatus Run(const TCommon& /*common*/, const std::string& name, bool /*force*/, bool /*wait*/,
                COutput& /*output*/) {
    gTaken = {name};
    return cDone;
}
TExitStatus Stop(const TCommon& /*common*/, const std::string& name, COutput& /*output*/) {
    gTaken = {name};
    return cDone;
}
TExitStatus PrintOutput(const TCommon& /*common*/, const std::string& name,
                        const TOutputOptions& /*options*/, COutput& /*output*/) {
    gTaken = {name};
    return cDone;
}
TExitStatus Wake(const TCommon& /*common*/, COutput& /*output*/) {
    return cDone;
}
TExitStatus PrintCompletion(const std::string& shell, COutput& /*output*/) {
    gTaken = {shell};
    return cDone;
}

CInterruption::CInterruption() = default;
CInterruption::~CInterruption() = default;
void CInterruption::ChangeBegins() {}
void CInterruption::ChangeIsRetried() {}

}  // namespace vxsched

using TArguments = std::vector<std::string>;

// Redirects a stream into a string while it exists.
class CCaptured {
public:
    explicit CCaptured(std::ostream& captured)
        : stream(captured), before(captured.rdbuf(content.rdbuf())) {}
    ~CCaptured() { stream.rdbuf(before); }
    CCaptured(const CCaptured&) = delete;
    CCaptured& operator=(const CCaptured&) = delete;

    std::string String() const { return content.str(); }

private:
    std::ostream& stream;
    std::ostringstream content;
    std::streambuf* before;
};

static std::vector<const char*> PointersTo(const char* program, const TArguments& arguments) {
    std::vector<const char*> pointers = {program};
    for (const std::string& argument : arguments)
        pointers.push_back(argument.c_str());
    pointers.push_back(nullptr);
    return pointers;
}

// Requires that no argument forges a line of a message.
static void RequireMessages(const std::string& messages) {
    RequireShown(messages);
    for (std::size_t begin = 0; begin < messages.size(); begin = messages.find('\n', begin) + 1) {
        const std::string_view line = std::string_view(messages).substr(begin);
        Require(line.starts_with("vxsched: ") || line.starts_with("         "),
                "a line of a message begins otherwise");
        Require(line.find('\n') != std::string_view::npos, "a message without a line end");
    }
}

static int RunVxsched(const TArguments& arguments) {
    const CCaptured output(std::cout);
    const CCaptured errors(std::cerr);
    const std::vector<const char*> pointers = PointersTo("vxsched", arguments);
    vxsched::gTaken.clear();
    const int status = vxsched::Main(static_cast<int>(arguments.size()) + 1, pointers.data());
    Require(status == vxsched::cDone || status == vxsched::cUsageStatus, "another status");
    RequireMessages(errors.String());
    return status;
}

static void RunVxschedd(const TArguments& arguments) {
    const CCaptured output(std::cout);
    const std::vector<const char*> pointers = PointersTo("vxschedd", arguments);
    try {
        const std::optional<THostOptions> options =
            ParseHostOptions(static_cast<int>(arguments.size()) + 1, pointers.data());
        Require(!options || (options->historySize <= std::uint64_t{1} << 40 &&
                             options->outputSize <= std::uint64_t{1} << 40 &&
                             options->snapshots <= 100'000 &&
                             options->lockTimeout <= std::chrono::hours(1) &&
                             options->lockTimeout >= std::chrono::seconds(0)),
                "a number beyond its limit is taken");
    } catch (const CHostError&) {
        // An invalid command line.
    }
}

// Whatever the arguments after -- are, the command takes exactly these.
static void RequireTaken(const TArguments& first, const TArguments& arguments) {
    TArguments all = first;
    all.emplace_back("--");
    all.insert(all.end(), arguments.begin(), arguments.end());
    Require(RunVxsched(all) == vxsched::cDone, "arguments after -- are refused");
    Require(vxsched::gTaken == arguments, "arguments after -- are taken as others");
}

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    unsetenv("VXSCHED_DIRECTORY");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    TArguments arguments;
    std::string_view left(reinterpret_cast<const char*>(data), size);
    while (!left.empty()) {
        arguments.emplace_back(left.substr(0, left.find('\0')));
        left.remove_prefix(std::min(arguments.back().size() + 1, left.size()));
    }
    RunVxsched(arguments);
    RunVxschedd(arguments);
    if (arguments.size() >= 2)
        RequireTaken({"create"}, arguments);
    if (!arguments.empty())
        RequireTaken({"remove"}, arguments);
    return 0;
}
