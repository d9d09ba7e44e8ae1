#include "runs/RunningRuns.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <sstream>
#include <system_error>

#include "base/CDescriptor.h"
#include "base/FileLock.h"
#include "base/Processes.h"
#include "base/RegularFile.h"
#include "base/SameFile.h"
#include "store/Layout.h"
#include "store/StoreAccess.h"
#include "store/TaskFileName.h"

// The header does not declare its functions as those of C.
extern "C" {
#include <sys/pidfd.h>
}

namespace fs = std::filesystem;

using vxsched::cOrphanDirectory;
using vxsched::cRunningDirectory;

// Of a few records, whose strings are as long as the system passes them to a program.
static constexpr std::uint64_t cLongestFile = std::uint64_t{16} << 20U;

// The last record of a run's file.
static std::optional<TRunRecord> LastRecordIn(const std::string& content) {
    std::optional<TRunRecord> run;
    std::istringstream lines(content);
    for (std::string line; std::getline(lines, line);) {
        if (const std::optional<TRunRecord> later = ReadJsonLine(line))
            run = later;
    }
    return run;
}

// Whether the process of a run's program goes on.
static bool HasProcess(const TRunRecord& run) {
    if (run.outcome != TRunRecord::cRunnerDied || run.process == 0)
        return false;
    const auto stat = vxsched::ReadProcessStat(vxsched::ProcessDirectory(run.process));
    return stat && stat->start == run.processStart && !stat->HasEnded();
}

// Removes the file of a run that is recorded, unless it is that of an orphan.
static void RemoveRecorded(const fs::path& path, const TRunRecord& run) {
    const fs::path kept = fs::path(cOrphanDirectory) / path.filename();
    if (!HasProcess(run) || vxsched::MakePrivateDirectory(cOrphanDirectory, ".") != 0 ||
        rename(path.c_str(), kept.c_str()) == -1)
        unlink(path.c_str());
}

// What is known of a run whose file cannot be read.
static TRunRecord DescribeUnreadable(const std::string& id) {
    TRunRecord run;
    run.outcome = TRunRecord::cRunnerDied;
    run.id = id;
    return run;
}

// Has the record of a run whose runner has died say so if its program had not begun.
static void RecordLoss(TRunRecord& run) {
    if (!run.job.empty())
        RecordNotStarted(run, "its runner was killed before the program began");
}

// The process that has the file locked; empty if nobody has, 0 if it is not visible here. Asks only: a
// lock that is tried would keep RecordDeadRunners() from its own.
static std::optional<pid_t> HolderOf(const CDescriptor& file) {
    struct flock whole {};
    whole.l_type = F_WRLCK;
    if (!file.IsOpen() || fcntl(file.Get(), F_GETLK, &whole) == -1 || whole.l_type == F_UNLCK)
        return {};
    return std::max(whole.l_pid, 0);
}

// Records the run of a runner that has died, and removes its file; one without a line has had no run yet.
// False if it has to be recorded later. The file of a runner that lives is opened for reading only:
// whoever watches for closed files (CRunnerWatch) is told of none.
static bool RecordOne(const fs::path& path, const std::function<bool(const TRunRecord&)>& record) {
    if (HolderOf(OpenRegularFile(path.c_str(), O_RDONLY | O_NOFOLLOW)))
        return true;
    const CDescriptor file = OpenRegularFile(path.c_str(), O_RDWR | O_NOFOLLOW);
    if (!file.IsOpen() || !LockForWriting(file, F_SETLK))
        return true;
    // Another process may have recorded it since.
    struct stat status {};
    if (fstat(file.Get(), &status) == -1 || !vxsched::IsSameFile(path, status))
        return true;
    std::string content;
    bool isDone = ReadRegularFile(file.Get(), cLongestFile, content) &&
                  content.find('\n') == std::string::npos;
    if (!isDone) {
        TRunRecord run = LastRecordIn(content).value_or(DescribeUnreadable(path.filename()));
        RecordLoss(run);
        if (run.outcome == TRunRecord::cRunnerDied || !run.job.empty())
            run.ended = CurrentMoment();
        isDone = record(run);
        if (isDone)
            RemoveRecorded(path, run);
    } else {
        unlink(path.c_str());
    }
    return isDone;
}

bool RecordDeadRunners(const std::function<bool(const TRunRecord&)>& record) {
    bool areDone = true;
    std::error_code error;
    for (fs::directory_iterator entry(cRunningDirectory, error);
         !error && entry != fs::directory_iterator(); entry.increment(error))
        areDone = RecordOne(entry->path(), record) && areDone;
    return areDone;
}

namespace vxsched {

std::string TaskFileNameOf(const TRunRecord& run) {
    return fs::path(run.output).parent_path().filename();
}

namespace {

struct TRunFile {
    TRunRecord run;
    std::optional<pid_t> runner;  // HolderOf()
};

std::optional<TRunFile> ReadRunFile(const fs::path& path) {
    const CDescriptor file = OpenRegularFile(path.c_str(), O_RDONLY | O_NOFOLLOW);
    const std::optional<pid_t> runner = HolderOf(file);
    std::string content;
    if (!file.IsOpen() || !ReadRegularFile(file.Get(), cLongestFile, content))
        return {};
    const std::optional<TRunRecord> run = LastRecordIn(content);
    return run ? std::optional(TRunFile{*run, runner}) : std::nullopt;
}

// In the order of the ids.
std::vector<TRunFile> ReadRunFiles(const std::string& directory, const std::string& own = "",
                                   const char* name = cRunningDirectory) {
    std::vector<TRunFile> files;
    std::error_code error;
    for (fs::directory_iterator entry(fs::path(directory) / name, error);
         !error && entry != fs::directory_iterator(); entry.increment(error)) {
        if (entry->path().filename() == own)
            continue;
        if (const std::optional<TRunFile> file = ReadRunFile(entry->path()))
            files.push_back(*file);
    }
    std::sort(files.begin(), files.end(),
              [](const TRunFile& one, const TRunFile& other) { return one.run.id < other.run.id; });
    return files;
}

}  // namespace

std::vector<TRunning> FindRunningRuns(const std::string& directory, const std::string& task,
                                      const std::string& own) {
    const auto isOfTask = [name = FileNameOf(task)](const TRunRecord& run) {
        return TaskFileNameOf(run) == name;
    };
    return FindRunningRuns(directory, isOfTask, own);
}

std::vector<TRunning> FindRunningRuns(const std::string& directory,
                                      const std::function<bool(const TRunRecord&)>& isWanted,
                                      const std::string& own) {
    std::vector<TRunning> runs;
    for (const TRunFile& file : ReadRunFiles(directory, own)) {
        if (file.runner && isWanted(file.run))
            runs.push_back({file.run, *file.runner});
    }
    return runs;
}

std::vector<TRunning> FindOrphans(const std::string& directory, const std::string& task,
                                  const std::string& own) {
    const std::string name = FileNameOf(task);
    std::vector<TRunning> orphans;
    for (const TRunFile& file : ReadRunFiles(directory, own)) {
        if (!file.runner && TaskFileNameOf(file.run) == name && HasProcess(file.run))
            orphans.push_back({.run = file.run, .isOrphan = true});
    }
    for (const TRunFile& file : ReadRunFiles(directory, "", cOrphanDirectory)) {
        if (!HasProcess(file.run))
            unlink((fs::path(directory) / cOrphanDirectory / file.run.id).c_str());
        else if (TaskFileNameOf(file.run) == name)
            orphans.push_back({.run = file.run, .isOrphan = true});
    }
    return orphans;
}

std::vector<TRunRecord> FindDeadRuns(const std::string& directory, const std::string& own) {
    std::vector<TRunRecord> runs;
    for (const TRunFile& file : ReadRunFiles(directory, own)) {
        if (!file.runner) {
            runs.push_back(file.run);
            RecordLoss(runs.back());
            runs.back().job.clear();
        }
    }
    return runs;
}

static CDescriptor OpenFileOf(const std::string& directory, const std::string& id) {
    const fs::path path = fs::path(directory) / cRunningDirectory / id;
    return OpenRegularFile(path.c_str(), O_RDONLY | O_NOFOLLOW);
}

bool IsRunning(const std::string& directory, const std::string& id) {
    const CDescriptor file = OpenFileOf(directory, id);
    // It is there; the run ends when it is removed.
    if (!file.IsOpen())
        return errno == EACCES || errno == EMFILE || errno == ENFILE || errno == ENOMEM;
    return HolderOf(file).has_value();
}

int Terminate(const std::string& directory, const TRunning& running, uid_t user) {
    if (running.isOrphan)
        return !HasProcess(running.run) || kill(-running.run.process, SIGTERM) == 0 ? 0 : errno;
    if (running.runner == 0)
        return EXDEV;
    const CDescriptor process(pidfd_open(running.runner, 0));
    if (!process.IsOpen())
        return errno == ESRCH ? 0 : errno;
    // It has had the lock all the time, or it is not the runner.
    if (HolderOf(OpenFileOf(directory, running.run.id)) != running.runner)
        return 0;
    // The system leaves it to the sender of such a signal to name one.
    siginfo_t signal{};
    signal.si_signo = SIGTERM;
    signal.si_code = SI_QUEUE;
    signal.si_pid = getpid();
    signal.si_uid = user;
    return pidfd_send_signal(process.Get(), SIGTERM, &signal, 0) == 0 || errno == ESRCH ? 0 : errno;
}

std::optional<TRunRecord> ReadRunningFile(const std::string& directory, const std::string& id) {
    const CDescriptor file = OpenFileOf(directory, id);
    std::string content;
    if (!file.IsOpen())
        return {};
    if (!ReadRegularFile(file.Get(), cLongestFile, content))
        return DescribeUnreadable(id);
    return LastRecordIn(content).value_or(DescribeUnreadable(id));
}

}  // namespace vxsched
