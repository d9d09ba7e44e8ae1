#include "runner/Request.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <limits>

#include "base/CDescriptor.h"
#include "base/RegularFile.h"
#include "jobs/JobLine.h"
#include "runs/RunRecord.h"

// Of strings of a task, whose name has no limit but that of a table.
static constexpr std::uint64_t cLongestCommand = std::uint64_t{1} << 30U;

bool IsAskedToRun() {
    return std::getenv(cRunVariable) != nullptr;
}

// Of a launcher that asks for nothing: another host, whose task has this program, or a person, who has
// given it several arguments.
static TRunRequest RequestOfNobody(int argc) {
    TRunRequest request;
    request.trigger = argc == 2 ? cScheduled : cManual;
    // The limit of the store's own host is not known here. It rotates what has grown beyond that.
    request.historySize = std::numeric_limits<std::uint64_t>::max();
    request.outputSize = cDefaultOutputSize;
    request.copy = TRunRequest::cPlain;
    return request;
}

std::optional<TRunRequest> TakeRequest(int argc) {
    const char* const variable = std::getenv(cRunVariable);
    auto request = variable != nullptr ? DecodeRunRequest(variable) : RequestOfNobody(argc);
    unsetenv(cRunVariable);
    return request;
}

std::vector<std::string> TakeCommand(int argc, char** argv) {
    if (argc >= 2)
        return {argv + 1, argv + argc};
    static std::optional<TRunCommand> command;
    std::string bytes;
    if (ReadRegularFile(STDIN_FILENO, cLongestCommand, bytes))
        command = DecodeRunCommand(bytes);
    const CDescriptor nothing(open("/dev/null", O_RDONLY | O_CLOEXEC));
    if (!command || dup2(nothing.Get(), STDIN_FILENO) == -1)
        return {};
    for (std::string& variable : command->variables)
        putenv(variable.data());
    return command->arguments;
}

std::optional<vxsched::TJob> FindJob(const TRunRequest& request,
                                     const std::vector<std::string>& command) {
    const bool isAsked = request.report != -1;
    if (isAsked && !vxsched::IsRunner(command.front()))
        return {};
    if (isAsked)
        return vxsched::ReadJobLine(command.size() > 1 ? command[1] : "");
    return command.size() == 1 ? vxsched::ReadJobLine(command.front()) : vxsched::ParseJob(command);
}
