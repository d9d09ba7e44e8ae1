#include "runs/RunnerLaunch.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <system_error>

#include "base/CDescriptor.h"
#include "store/Layout.h"

namespace fs = std::filesystem;

static constexpr int cLongestStart = 10'000;  // milliseconds

std::string FindRunner(const std::vector<fs::path>& directories) {
    std::error_code ignored;
    const fs::path self = fs::read_symlink("/proc/self/exe", ignored);
    // A path relative to the working directory would lead to anybody's program.
    if (!self.is_absolute())
        return "";
    for (const fs::path& directory : directories) {
        const fs::path runner = self.parent_path() / directory / vxsched::cRunnerProgram;
        if (access(runner.c_str(), X_OK) == 0)
            return runner.lexically_normal().string();
    }
    return "";
}

// The report of a runner; none if it ends without one. Of one that is late, a report without a process.
static std::optional<TLaunchReport> ReadReport(int pipe) {
    pollfd report{.fd = pipe, .events = POLLIN, .revents = 0};
    TLaunchReport launch{.error = 0, .process = 0, .run = {}};
    if (poll(&report, 1, cLongestStart) == 1 && read(pipe, &launch, sizeof launch) != sizeof launch)
        return {};
    return launch;
}

// Whether a process that is ending was not killed; it is not collected.
static bool EndsByItself(pid_t process) {
    siginfo_t end{};
    return waitid(P_PID, static_cast<id_t>(process), &end, WEXITED | WNOWAIT) == 0 &&
           end.si_code == CLD_EXITED;
}

std::optional<TLaunched> LaunchByRunner(
    const TRunRequest& request,
    const std::function<int(pid_t* runner, int pipe, const std::string& variable)>& spawn,
    int& error) {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) == -1) {
        error = errno;
        return {};
    }
    const CDescriptor ours(ends[0]);
    CDescriptor theirs(ends[1]);
    TLaunched launched;
    error = spawn(&launched.child, theirs.Get(), EncodeRunRequest(request));
    if (error != 0)
        return {};
    theirs = CDescriptor();
    const std::optional<TLaunchReport> report = ReadReport(ours.Get());
    const bool isOfNoUse = !report && EndsByItself(launched.child);
    // Nobody else waits for it.
    if (isOfNoUse || (report && report->error != 0))
        wait4(launched.child, nullptr, 0, nullptr);
    if (isOfNoUse) {
        error = ENOEXEC;
        return {};
    }
    const TLaunchReport known = report.value_or(TLaunchReport{.error = 0, .process = 0, .run = {}});
    launched.error = known.error;
    launched.program = known.process != 0 ? known.process : launched.child;
    launched.hasRunner = known.process != launched.child;
    launched.run = known.run;
    return launched;
}
