#include "client/GiveToRunner.h"

#include <unistd.h>

#include <filesystem>

#include <vxsched/Validation.h>
#include "client/LibraryDirectory.h"
#include "jobs/JobLine.h"
#include "store/Layout.h"
#include "store/MakeError.h"

namespace vxsched {

namespace fs = std::filesystem;

// Relative to the libraries: once they are installed, and in the build tree.
static constexpr const char* cProgramDirectories[] = {VXSCHED_PROGRAM_DIRECTORY, "../bin"};

static std::string RunnerPath() {
    const fs::path libraries = LibraryDirectory();
    for (const char* const directory : cProgramDirectories) {
        const fs::path runner = (libraries / directory / cRunnerProgram).lexically_normal();
        if (access(runner.c_str(), X_OK) == 0)
            return runner.string();
    }
    throw MakeError(EError::cFailed,
                    "{} of this installation is missing, which is to execute the program; install "
                    "the package anew",
                    cRunnerProgram);
}

bool NeedsRunner(const std::string& program) {
    const bool hasExtension = fs::path(program).filename().string().find('.') != std::string::npos;
    return program.starts_with('/') && (hasExtension || LaunchedPath(program) != program);
}

void GiveToRunner(TTaskEntry& task, TJob job) {
    job.task = task.name;
    task.program = RunnerPath();
    task.parameter = JobLine(job);
}

}  // namespace vxsched
