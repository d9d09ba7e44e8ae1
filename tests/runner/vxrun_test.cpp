// The runner: a real vxrun, which a test launches as the host does.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <spawn.h>
#include <sys/inotify.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <system_error>
#include <vector>

#include "GuardedTable.h"
#include "HostProgram.h"
#include "Process.h"
#include "Tool.h"
#include "base/CDescriptor.h"
#include "base/DisplayText.h"
#include "base/Processes.h"
#include "base/Users.h"
#include "runs/COutputReader.h"
#include "runs/RunRecord.h"
#include "runs/RunRequest.h"
#include "runs/RunningRuns.h"
#include "store/Layout.h"

namespace fs = std::filesystem;

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;

namespace {

constexpr char cHistory[] = "files/history.jsonl";
constexpr char cShell[] = "/bin/sh";
constexpr char cErrors[] = "errors";  // what runners and programs without one write there

TRunRequest Request() {
    TRunRequest request;
    request.trigger = cScheduled;
    request.historySize = 1 << 20;
    request.outputSize = 1000;
    return request;
}

// For the report to a launcher that has gone.
int OpenPipeWithoutReader() {
    std::array<int, 2> ends{};
    EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
    close(ends[0]);
    return ends[1];
}

// A vxrun that runs a command as task "a task", due at second 5.
class CRunner {
public:
    explicit CRunner(std::vector<std::string> command, TRunRequest request = Request(),
                     int output = STDOUT_FILENO) {
        std::array<int, 2> ends{};
        EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
        report = CDescriptor(ends[0]);
        const CDescriptor theirs(ends[1]);
        if (request.report == -1)
            request.report = theirs.Get();
        setenv("VXSCHED_RUN", EncodeRunRequest(request).c_str(), 1);
        setenv("VXSCHED_TASK", "a task", 1);
        setenv("VXSCHED_DUE", "5", 1);
        command.insert(command.begin(), RUNNER_PROGRAM);
        std::vector<char*> arguments;
        for (std::string& argument : command)
            arguments.push_back(argument.data());
        arguments.push_back(nullptr);
        process = fork();
        if (process == 0) {
            fcntl(request.report, F_SETFD, 0);
            dup2(output, STDOUT_FILENO);
            dup2(open(cErrors, O_WRONLY | O_CREAT | O_APPEND, 0600), STDERR_FILENO);
            execv(RUNNER_PROGRAM, arguments.data());
            _exit(126);
        }
    }
    ~CRunner() {
        if (process > 0)
            kill(process, SIGKILL);
        Wait();
    }
    CRunner(const CRunner&) = delete;
    CRunner& operator=(const CRunner&) = delete;

    pid_t Id() const { return process; }

    TLaunchReport Report() {
        TLaunchReport launch{.error = -1, .process = -1, .run = {}, .reason = {}};
        EXPECT_EQ(read(report.Get(), &launch, sizeof launch), ssize_t{sizeof launch});
        return launch;
    }

    // The exit status, or 1000 plus the number of the signal that killed it.
    int Wait() {
        int status = 0;
        if (process > 0 && wait4(process, &status, 0, nullptr) == process)
            result = WIFSIGNALED(status) ? 1000 + WTERMSIG(status) : WEXITSTATUS(status);
        process = -1;
        return result;
    }

private:
    pid_t process = -1;
    int result = -1;
    CDescriptor report;
};

// The runners in this directory.
std::vector<pid_t> RunnersHere() {
    std::vector<pid_t> runners;
    std::error_code error;
    for (fs::directory_iterator entry("/proc", error); !error && entry != fs::directory_iterator();
         entry.increment(error)) {
        std::error_code ignored;
        const auto process = vxsched::ParseProcess(entry->path().filename().native());
        if (process && fs::read_symlink(entry->path() / "exe", ignored) == RUNNER_PROGRAM &&
            fs::read_symlink(entry->path() / "cwd", ignored) == fs::current_path())
            runners.push_back(*process);
    }
    return runners;
}

class Runner : public testing::Test {
protected:
    Runner() {
        fs::remove_all("files");
        fs::remove(cErrors);
        fs::create_directory("files");
    }

    static std::vector<TRunRecord> History() {
        std::vector<TRunRecord> runs;
        for (const std::string& line : Lines(cHistory))
            runs.push_back(ReadJsonLine(line).value());
        return runs;
    }
    static TRunRecord OnlyRun() {
        const std::vector<TRunRecord> runs = History();
        EXPECT_EQ(runs.size(), 1U);
        return runs.empty() ? TRunRecord() : runs[0];
    }
    static std::string OutputOf(const TRunRecord& run) {
        vxsched::COutputReader reader(run.output);
        std::string all;
        for (std::string bytes = reader.Next(); !bytes.empty(); bytes = reader.Next())
            all += bytes;
        return all;
    }
    static std::vector<std::string> Outputs() {
        std::vector<std::string> names;
        std::error_code ignored;
        for (const auto& entry : fs::directory_iterator("files/output/a%20task", ignored))
            names.push_back(entry.path());
        std::sort(names.begin(), names.end());
        return names;
    }
    // The runner warns once that the output is not kept, and why.
    static void ExpectWarning(const std::string& reason) {
        ASSERT_EQ(Lines(cErrors).size(), 1U);
        EXPECT_THAT(Lines(cErrors)[0], testing::StartsWith("vxrun: cannot keep the output in "));
        EXPECT_THAT(Lines(cErrors)[0], HasSubstr(reason));
    }
    static std::vector<TRunRecord> DeadRunners() {
        std::vector<TRunRecord> runs;
        RecordDeadRunners([&](const TRunRecord& run) {
            runs.push_back(run);
            return true;
        });
        return runs;
    }
};

}  // namespace

// The host looks for the dead when such a file is closed, and would look again for ever.
TEST_F(Runner, ThatLivesHasItsFileOpenedForReadingOnlyByWhoeverLooksForTheDead) {
    CRunner runner({cShell, "-c", "while [ ! -e end ]; do sleep 0.01; done"});
    EXPECT_EQ(runner.Report().error, 0);
    const CDescriptor events(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    ASSERT_NE(inotify_add_watch(events.Get(), vxsched::cRunningDirectory, IN_CLOSE_WRITE), -1);
    EXPECT_THAT(DeadRunners(), testing::IsEmpty());
    char event[1024];
    EXPECT_EQ(read(events.Get(), event, sizeof event), -1) << "a file that was written is closed";
    WriteFile("end", "");
    EXPECT_EQ(runner.Wait(), 0);
}

TEST_F(Runner, KeepsTheOutputAndRecordsTheEndOfItsProgram) {
    CRunner runner({cShell, "-c", "echo one; echo two >&2; exit 3"});
    const TLaunchReport report = runner.Report();
    EXPECT_EQ(report.error, 0);
    EXPECT_EQ(runner.Wait(), 3);
    const TRunRecord run = OnlyRun();
    EXPECT_EQ(run.outcome, TRunRecord::cExited);
    EXPECT_EQ(run.number, 3);
    EXPECT_EQ(run.task, "a task");
    EXPECT_EQ(run.due, std::chrono::sys_seconds(std::chrono::seconds(5)));
    EXPECT_EQ(run.program, cShell);
    EXPECT_EQ(run.parameter, "-c");
    EXPECT_EQ(run.process, report.process);
    EXPECT_EQ(run.trigger, cScheduled);
    EXPECT_EQ(run.attempt, 1);
    EXPECT_EQ(run.outputBytes, 8U);
    EXPECT_LE(*run.started, *run.ended);
    EXPECT_EQ(OutputOf(run), "one\ntwo\n");
    EXPECT_THAT(Outputs(), ElementsAre(run.output));
    EXPECT_EQ(CountIn("files/running"), 0U);
}

TEST_F(Runner, EndsAsItsProgramEnds) {
    for (const int signal : {SIGKILL, SIGSEGV, SIGTERM}) {
        CRunner runner({cShell, "-c", "kill -" + std::to_string(signal) + " $$"});
        EXPECT_EQ(runner.Wait(), 1000 + signal);
        EXPECT_EQ(History().back().outcome, TRunRecord::cKilled);
        EXPECT_EQ(History().back().number, signal);
    }
    EXPECT_TRUE(DeadRunners().empty());
}

// No task may depend on how it is launched.
TEST_F(Runner, ProgramGetsItsArgumentsAndEnvironmentUnchanged) {
    setenv("OTHER", "value", 1);
    CRunner runner({cShell, "-c", "env | grep -E '^(OTHER|VXSCHED_)'"});
    unsetenv("OTHER");
    EXPECT_EQ(runner.Wait(), 0);
    const std::string environment = OutputOf(OnlyRun());
    EXPECT_THAT(environment, HasSubstr("OTHER=value\n"));
    EXPECT_THAT(environment, HasSubstr("VXSCHED_TASK=a task\n"));
    EXPECT_THAT(environment, HasSubstr("VXSCHED_DUE=5\n"));
    EXPECT_EQ(environment.find("VXSCHED_RUN"), std::string::npos) << environment;
    CRunner arguments({cShell, "-c", "printf '<%s>' \"$0\" \"$@\"", "first", "", "a b", "\n"});
    EXPECT_EQ(arguments.Wait(), 0);
    EXPECT_EQ(OutputOf(History().back()), "<first><><a b><\n>");
}

TEST_F(Runner, ProgramHasCleanSignalsNoOtherDescriptorAndASessionOfItsOwn) {
    const CDescriptor inherited(open("/dev/null", O_RDONLY));
    CRunner runner({cShell, "-c",
                    "ls /proc/self/fd | wc -l; grep -cE 'Sig(Blk|Ign).*00000$' /proc/self/status;"
                    "ps -o sid= -p $$ | tr -d ' '"});
    EXPECT_EQ(runner.Wait(), 0);
    EXPECT_EQ(OutputOf(OnlyRun()), "4\n2\n" + std::to_string(OnlyRun().process) + '\n');
}

TEST_F(Runner, ProgramThatCannotBeStartedIsReportedAndLeavesNothing) {
    CRunner runner({fs::absolute("absent"), "x"});
    EXPECT_EQ(runner.Report().error, ENOENT);
    EXPECT_EQ(runner.Wait(), 127);
    EXPECT_FALSE(fs::exists(cHistory));
    EXPECT_TRUE(Outputs().empty());
    EXPECT_EQ(CountIn("files/running"), 0U);
}

TEST_F(Runner, ProgramThatCannotBeStartedIsRecordedIfNobodyGetsTheReport) {
    TRunRequest request = Request();
    request.report = OpenPipeWithoutReader();
    CRunner runner({fs::absolute("absent"), "x"}, request);
    EXPECT_EQ(runner.Wait(), 127);
    ASSERT_EQ(History().size(), 1U);
    EXPECT_EQ(History().at(0).outcome, TRunRecord::cNotStarted);
    EXPECT_EQ(History().at(0).error, "No such file or directory");
}

// The run has ended; what it has left behind may write for as long as it likes.
TEST_F(Runner, OutputOfAProcessThatTheProgramLeavesBehindIsKept) {
    CRunner runner({cShell, "-c",
                    "(while [ -e files ] && [ ! -e go ]; do sleep 0.01; done; echo late; touch "
                    "gone) & echo early"});
    EXPECT_EQ(runner.Wait(), 0);
    const TRunRecord run = OnlyRun();
    EXPECT_EQ(run.outputBytes, 6U);
    EXPECT_EQ(OutputOf(run), "early\n");
    EXPECT_EQ(CountIn("files/running"), 0U);
    WriteFile("go", "");
    WaitUntil([&] { return OutputOf(run) == "early\nlate\n"; });
    WaitUntil([] { return fs::exists("gone"); });
    fs::remove("go");
    fs::remove("gone");
}

TEST_F(Runner, OutputTakesNoMoreRoomThanItsSizeAtAnyTime) {
    constexpr std::uint64_t cSize = 65536;
    TRunRequest request = Request();
    request.outputSize = cSize;
    CRunner runner({cShell, "-c", "head -c 100000000 /dev/zero | tr '\\0' x; echo end"}, request);
    WaitUntil([] { return Outputs().size() == 1; });
    const std::string path = Outputs()[0];
    struct stat status {};
    do {
        ASSERT_EQ(stat(path.c_str(), &status), 0);
        ASSERT_LE(status.st_size, static_cast<off_t>(cSize + cOutputHeaderSize));
        ASSERT_LE(status.st_blocks * 512, static_cast<blkcnt_t>(cSize + 8192));
    } while (CountIn("files/running") > 0);
    EXPECT_EQ(runner.Wait(), 0);
    EXPECT_EQ(OnlyRun().outputBytes, 100'000'004U);
    EXPECT_EQ(OutputOf(OnlyRun()), std::string(cSize - 4, 'x') + "end\n");
}

TEST_F(Runner, OutputOfSizeZeroIsOnlyCounted) {
    TRunRequest request = Request();
    request.outputSize = 0;
    CRunner runner({cShell, "-c", "echo lost; exit 3"}, request);
    EXPECT_EQ(runner.Wait(), 3);
    EXPECT_EQ(OnlyRun().outputBytes, 5U);
    EXPECT_EQ(OnlyRun().outputError, "");
    EXPECT_TRUE(Outputs().empty());
    EXPECT_EQ(ReadFile(cErrors), "");
}

TEST_F(Runner, LastTenOutputsOfATaskAreKept) {
    std::vector<std::string> all;
    for (int number = 0; number < 13; ++number) {
        CRunner runner({cShell, "-c", "echo " + std::to_string(number)});
        EXPECT_EQ(runner.Wait(), 0);
        all.push_back(History().back().output);
    }
    EXPECT_EQ(Outputs(), std::vector<std::string>(all.begin() + 3, all.end()));
}

// A reader may follow any of them.
TEST_F(Runner, OutputsOfMoreThanTenRunsAreKeptWhileTheyGoOn) {
    std::vector<std::unique_ptr<CRunner>> runners;
    for (int number = 0; number < 12; ++number) {
        runners.push_back(std::make_unique<CRunner>(std::vector<std::string>{
            cShell, "-c", "while [ -e files ] && [ ! -e go ]; do sleep 0.01; done"}));
        runners.back()->Report();
    }
    WaitUntil([] { return Outputs().size() == 12; });
    WriteFile("go", "");
    for (const auto& runner : runners)
        EXPECT_EQ(runner->Wait(), 0);
    fs::remove("go");
    EXPECT_EQ(Outputs().size(), 10U);
}

// A daemon of one run may write for longer than ten more runs take.
TEST_F(Runner, OutputThatIsStillWrittenIsOneOfTheTen) {
    CRunner first({cShell, "-c",
                   "(while [ -e files ] && [ ! -e go ]; do sleep 0.01; done; echo late) & echo "
                   "early"});
    EXPECT_EQ(first.Wait(), 0);
    const TRunRecord run = OnlyRun();
    for (int number = 0; number < 12; ++number) {
        CRunner runner({cShell, "-c", "echo " + std::to_string(number)});
        EXPECT_EQ(runner.Wait(), 0);
    }
    ASSERT_EQ(Outputs().size(), 10U);
    EXPECT_EQ(Outputs().front(), run.output);
    WriteFile("go", "");
    WaitUntil([&] { return OutputOf(run) == "early\nlate\n"; });
    WaitUntil([&] { return RunnersHere().empty(); });
    fs::remove("go");
    CRunner last({cShell, "-c", "echo last"});
    EXPECT_EQ(last.Wait(), 0);
    EXPECT_EQ(Outputs().size(), 10U);
    EXPECT_FALSE(fs::exists(run.output));
}

TEST_F(Runner, OutputsOfRunsAtTheSameTimeAreRotatedToTheLatestTen) {
    for (int round = 1; round <= 6; ++round) {
        const std::string go = "go" + std::to_string(round);
        std::vector<std::unique_ptr<CRunner>> runners;
        for (int number = 0; number < 8; ++number)
            runners.push_back(std::make_unique<CRunner>(
                std::vector<std::string>{cShell, "-c",
                                         "while [ -e files ] && [ ! -e " + go +
                                             " ]; do sleep 0.01; done; seq 1000; echo end"}));
        WriteFile(go, "");
        for (const auto& runner : runners) {
            EXPECT_LE(Outputs().size(), 10U);
            EXPECT_EQ(runner->Wait(), 0);
        }
        fs::remove(go);
        std::vector<std::string> all;
        for (const TRunRecord& run : History()) {
            EXPECT_EQ(run.outputError, "");
            all.push_back(run.output);
        }
        std::sort(all.begin(), all.end());
        const std::size_t kept = std::min<std::size_t>(all.size(), 10);
        EXPECT_EQ(Outputs(),
                  std::vector<std::string>(all.end() - static_cast<long>(kept), all.end()));
        for (TRunRecord run; const std::string& path : Outputs()) {
            run.output = path;
            EXPECT_THAT(OutputOf(run), EndsWith("\n1000\nend\n"));
        }
    }
}

// More than ten are kept while more than ten are written. Each that ends prunes, next to the others.
TEST_F(Runner, OutputsOfManyRunsThatEndAtTheSameTimeArePrunedToTen) {
    for (int round = 1; round <= 5; ++round) {
        const std::string go = "go" + std::to_string(round);
        std::vector<std::unique_ptr<CRunner>> runners;
        for (int number = 0; number < 24; ++number)
            runners.push_back(std::make_unique<CRunner>(std::vector<std::string>{
                cShell, "-c",
                "while [ -e files ] && [ ! -e " + go + " ]; do sleep 0.01; done; echo end"}));
        WriteFile(go, "");
        for (const auto& runner : runners)
            EXPECT_EQ(runner->Wait(), 0);
        EXPECT_EQ(Outputs().size(), 10U);
    }
}

// ---- An output that cannot be kept ------------------------------------------------------------------

TEST_F(Runner, JobWhoseOutputCannotBeKeptRunsAllTheSame) {
    WriteFile("files/output", "no directory");
    CRunner runner({cShell, "-c", "echo lost; echo kept > here"});
    EXPECT_EQ(runner.Wait(), 0);
    EXPECT_EQ(OnlyRun().outputBytes, 5U);
    EXPECT_EQ(OnlyRun().outputError, "Not a directory");
    EXPECT_EQ(ReadFile("here"), "kept\n");
    ExpectWarning("Not a directory");
}

namespace {

// The disk of the outputs has this many bytes. The exit status of `body`'s process; 2 if the system
// permits no such disk.
int OnADiskOf(const std::string& size, const std::function<void()>& body,
              const char* directory = "files/output") {
    CForkedChild child([&] {
        fs::create_directory(directory);
        if (!EnterNamespaces(CLONE_NEWNS))
            return 2;
        mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr);
        if (mount("none", directory, "tmpfs", 0, ("size=" + size + ",mode=0700").c_str()) != 0)
            return 2;
        body();
        return testing::Test::HasFailure() ? 1 : 42;
    });
    return child.Wait();
}

}  // namespace

// It is not blocked by a full pipe, and ends as it would.
TEST_F(Runner, JobGoesOnOnAFullDiskAndWhatThereWasRoomForIsKept) {
    const int status = OnADiskOf("64k", [] {
        TRunRequest request = Request();
        request.outputSize = 1 << 20;
        CRunner runner({cShell, "-c", "head -c 300000 /dev/zero | tr '\\0' x; exit 3"}, request);
        EXPECT_EQ(runner.Wait(), 3);
        const TRunRecord run = OnlyRun();
        EXPECT_EQ(run.outputBytes, 300'000U);
        EXPECT_EQ(run.outputError, "No space left on device");
        ExpectWarning("No space left on device");
        const std::string kept = OutputOf(run);
        EXPECT_LT(kept.size(), 65536U);
        EXPECT_EQ(kept, std::string(kept.size(), 'x'));
    });
    if (status == 2)
        GTEST_SKIP() << cCannotMount;
    EXPECT_EQ(status, 42);
}

// It has room from its begin on, however long the strings are.
TEST_F(Runner, EndOfARunIsKnownOnADiskThatItHasFilled) {
    const int status = OnADiskOf(
        "256k",
        [] {
            fs::create_directory(cHistory);
            WriteFile("script", "head -c 1000000 /dev/zero; exit 7");
            std::string path;
            while (path.size() < 3000)
                path += "./";
            TRunRequest request = Request();
            request.outputSize = 1 << 20;
            CRunner runner({cShell, path + "script"}, request);
            EXPECT_EQ(runner.Wait(), 7);
            const std::vector<TRunRecord> runs = DeadRunners();
            ASSERT_EQ(runs.size(), 1U);
            EXPECT_EQ(runs[0].outcome, TRunRecord::cExited);
            EXPECT_EQ(runs[0].number, 7);
        },
        "files");
    if (status == 2)
        GTEST_SKIP() << cCannotMount;
    EXPECT_EQ(status, 42);
}

// The limit is the job's as well.
TEST_F(Runner, OutlivesALimitOnTheSizeOfFiles) {
    TRunRequest request = Request();
    request.outputSize = 1 << 20;
    rlimit former{};
    getrlimit(RLIMIT_FSIZE, &former);
    const rlimit small{.rlim_cur = 4096, .rlim_max = former.rlim_max};
    setrlimit(RLIMIT_FSIZE, &small);
    CRunner limited({cShell, "-c", "seq 10000; exit 3"}, request);
    setrlimit(RLIMIT_FSIZE, &former);
    EXPECT_EQ(limited.Wait(), 3);
    EXPECT_EQ(History().back().outputBytes, 48'894U);
    EXPECT_EQ(History().back().outputError, "File too large");
}

// What is below files/ is the store's: a link there may lead to anybody's files.
TEST_F(Runner, LinkToElsewhereIsNotFollowedForTheOutput) {
    fs::create_directory("elsewhere");
    for (int number = 0; number < 12; ++number)
        WriteFile("elsewhere/" + std::to_string(number) + ".log", "");
    fs::create_directory_symlink("../elsewhere", "files/output");
    EXPECT_EQ(CRunner({cShell, "-c", "echo lost"}).Wait(), 0);
    fs::remove("files/output");
    fs::create_directory("files/output");
    fs::create_directory_symlink("../../elsewhere", "files/output/a%20task");
    EXPECT_EQ(CRunner({cShell, "-c", "echo lost"}).Wait(), 0);
    for (const TRunRecord& run : History())
        EXPECT_EQ(run.outputError, "Not a directory");
    EXPECT_EQ(CountIn("elsewhere"), 12U) << "nothing is made or removed there";
    fs::remove_all("elsewhere");
}

// ---- Copies of the output -------------------------------------------------------------------------

namespace {

std::string CopyOf(TRunRequest::ECopy copy, const std::string& command) {
    TRunRequest request = Request();
    request.copy = copy;
    const CDescriptor file(open("copy", O_RDWR | O_CREAT | O_TRUNC, 0600));
    CRunner runner({cShell, "-c", command}, request, file.Get());
    EXPECT_EQ(runner.Wait(), 0);
    return ReadFile("copy");
}

}  // namespace

TEST_F(Runner, OutputIsCopiedIfAskedFor) {
    const std::string command = "printf 'one\\ntwo\\n\\nlast'";
    EXPECT_EQ(CopyOf(TRunRequest::cNoCopy, command), "");
    EXPECT_EQ(CopyOf(TRunRequest::cPlain, command), "one\ntwo\n\nlast");
    EXPECT_EQ(CopyOf(TRunRequest::cPrefixed, command),
              "a task: one\na task: two\na task: \na task: last\n");
    for (const TRunRecord& run : History())
        EXPECT_EQ(OutputOf(run), "one\ntwo\n\nlast");
}

// Nor may a program hide the name of its task, or act on the terminal of whoever reads the copy.
TEST_F(Runner, ControlCharactersAreReplacedInACopyByLine) {
    const std::string command = R"(printf 'x\rforged: \033[2Jy\tz\177\302\233\n\303\244\377\b')";
    const std::string bytes = "x\rforged: \x1b[2Jy\tz\x7f\xc2\x9b\n\xc3\xa4\xff\b";
    EXPECT_EQ(CopyOf(TRunRequest::cPrefixed, command),
              "a task: x\ufffdforged: \ufffd[2Jy\tz\ufffd\ufffd\na task: \xc3\xa4\ufffd\ufffd\n");
    EXPECT_EQ(CopyOf(TRunRequest::cPlain, command), bytes);
    for (const TRunRecord& run : History())
        EXPECT_EQ(OutputOf(run), bytes);
}

// Neither where the runner's reads end nor where a long line is cut.
TEST_F(Runner, NoCharacterIsCutInTwoInACopyByLine) {
    std::string expected = "x";
    for (int number = 0; number < 200'000; ++number)
        expected += "\xe2\x82\xac";
    WriteFile("long", expected);
    std::string copied;
    std::istringstream lines(CopyOf(TRunRequest::cPrefixed, "cat long; printf '\\342\\202'"));
    for (std::string line; std::getline(lines, line);) {
        ASSERT_TRUE(line.starts_with("a task: "));
        EXPECT_LT(line.size(), std::size_t{PIPE_BUF});
        EXPECT_EQ(vxsched::Show(line).string, line);
        copied += line.substr(8);
    }
    EXPECT_EQ(copied, expected + "\ufffd\ufffd");
}

TEST_F(Runner, CopyThatNobodyReadsHoldsUpNoJob) {
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
    const CDescriptor reader(ends[0]);
    const CDescriptor theirs(ends[1]);
    TRunRequest request = Request();
    request.copy = TRunRequest::cPrefixed;
    CRunner runner({cShell, "-c", "seq 100000"}, request, theirs.Get());
    EXPECT_EQ(runner.Wait(), 0);
    EXPECT_EQ(OnlyRun().outputBytes, 588'895U);
}

// ---- What a program leaves behind -----------------------------------------------------------------

// Whoever the program has not waited for, since it is not the parent, as of a daemon.
TEST_F(Runner, ResourcesOfAnOrphanThatEndsBeforeTheProgramAreRecorded) {
    const std::string orphan =
        "sh -c 'echo $$ > pid.new; mv pid.new pid; exec " PROGRAMS "/use-resources \"use 400 32\"'";
    CRunner runner({cShell, "-c",
                    "(" + orphan +
                        " &); while [ ! -e pid ]; do sleep 0.05; done; "
                        "read -r pid < pid; while kill -0 $pid 2>/dev/null; do sleep 0.05; done"});
    EXPECT_EQ(runner.Wait(), 0);
    const TUsage usage = OnlyRun().usage;
    EXPECT_GE(usage.user + usage.system, std::chrono::milliseconds(400));
    EXPECT_GE(usage.peakMemory, 32 << 10);
    fs::remove("pid");
}

TEST_F(Runner, CollectsTheOrphansOfItsProgram) {
    CRunner runner({cShell, "-c",
                    "for n in 1 2 3 4 5 6 7 8; do (sh -c 'sleep 0.0$0' $n &); done; touch ready;"
                    "while [ -e files ] && [ ! -e go ]; do sleep 0.01; done"});
    WaitUntil([] { return fs::exists("ready"); });
    const std::string id = std::to_string(runner.Id());
    WaitUntil([&] {
        const std::string children = ReadFile("/proc/" + id + "/task/" + id + "/children");
        return std::count(children.begin(), children.end(), ' ') == 1;
    });
    WriteFile("go", "");
    EXPECT_EQ(runner.Wait(), 0);
    fs::remove("go");
    fs::remove("ready");
}

// ---- Its own end ------------------------------------------------------------------------------------

TEST_F(Runner, ThatIsTerminatedTerminatesItsProgramAndRecordsWhoDidThat) {
    CRunner runner(
        {cShell, "-c", "trap 'echo bye; exit 5' TERM; touch ready; while :; do sleep 0.01; done"});
    WaitUntil([] { return fs::exists("ready"); });
    fs::remove("ready");
    kill(runner.Id(), SIGTERM);
    EXPECT_EQ(runner.Wait(), 5);
    const TRunRecord run = OnlyRun();
    EXPECT_EQ(run.outcome, TRunRecord::cExited);
    EXPECT_EQ(run.stoppedBy, FindUser(getuid()).name);
    EXPECT_THAT(OutputOf(run), EndsWith("bye\n"));
}

// The shell ends at once; the processes that it has made do not.
TEST_F(Runner, ThatIsTerminatedWaitsForTheWholeGroup) {
    CRunner runner({cShell, "-c",
                    "(trap 'sleep 0.2; echo bye; exit' TERM; touch ready; "
                    "while :; do sleep 0.01; done) & wait"});
    WaitUntil([] { return fs::exists("ready"); });
    fs::remove("ready");
    kill(runner.Id(), SIGTERM);
    runner.Wait();
    const TRunRecord run = OnlyRun();
    EXPECT_EQ(run.outcome, TRunRecord::cKilled);
    EXPECT_THAT(OutputOf(run), EndsWith("bye\n"));
}

// A process that is left keeps its output from then on.
TEST_F(Runner, WhatKeepsTheOutputAfterTheRunIsEndedBySigterm) {
    CRunner runner(
        {cShell, "-c",
         "(while [ -e files ] && [ ! -e go ]; do sleep 0.01; done; echo late) & exit 0"});
    EXPECT_EQ(runner.Wait(), 0);
    const std::vector<pid_t> keepers = RunnersHere();
    ASSERT_EQ(keepers.size(), 1U);
    kill(keepers[0], SIGTERM);
    WaitUntil([] { return RunnersHere().empty(); });
    WriteFile("go", "");
}

TEST_F(Runner, ThatIsKilledIsRecordedByWhoeverNotices) {
    CRunner runner({cShell, "-c", "echo out; touch ready; sleep 1000"});
    const TLaunchReport report = runner.Report();
    WaitUntil([] { return fs::exists("ready"); });
    fs::remove("ready");
    EXPECT_TRUE(DeadRunners().empty()) << "it lives";
    kill(runner.Id(), SIGKILL);
    EXPECT_EQ(runner.Wait(), 1000 + SIGKILL);
    kill(-report.process, SIGKILL);
    const std::vector<TRunRecord> dead = DeadRunners();
    ASSERT_EQ(dead.size(), 1U);
    EXPECT_EQ(dead[0].outcome, TRunRecord::cRunnerDied);
    EXPECT_EQ(dead[0].task, "a task");
    EXPECT_EQ(dead[0].process, report.process);
    EXPECT_TRUE(dead[0].ended);
    EXPECT_TRUE(DeadRunners().empty());
    EXPECT_EQ(CountIn("files/running"), 0U);
    EXPECT_FALSE(fs::exists(cHistory));
}

// Its file is there for an instant before it is locked; who removes it then has it made again.
TEST_F(Runner, ThatIsKilledWhileItMakesItsFileLeavesNone) {
    fs::create_directories("files/running");
    WriteFile("files/running/20261122T120000.000Z-1", "");
    WriteFile("files/running/20261122T120000.000Z-2", "half a rec");
    EXPECT_TRUE(DeadRunners().empty());
    EXPECT_EQ(CountIn("files/running"), 0U);
}

// Who asks whether a run goes on takes no lock that would keep its record from being written.
TEST_F(Runner, ThatIsKilledIsRecordedAlsoWhileSomebodyReadsItsFile) {
    CRunner runner({cShell, "-c", "touch ready; sleep 1000"});
    const TLaunchReport report = runner.Report();
    WaitUntil([] { return fs::exists("ready"); });
    fs::remove("ready");
    const std::vector<vxsched::TRunning> running = vxsched::FindRunningRuns(".", "a task");
    ASSERT_EQ(running.size(), 1U);
    EXPECT_EQ(running[0].runner, runner.Id());
    const CDescriptor reader(
        open(("files/running/" + running[0].run.id).c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_TRUE(vxsched::IsRunning(".", running[0].run.id));
    kill(runner.Id(), SIGKILL);
    runner.Wait();
    EXPECT_FALSE(vxsched::IsRunning(".", running[0].run.id));
    EXPECT_EQ(DeadRunners().size(), 1U);
    kill(-report.process, SIGKILL);
}

// ---- Want of processes --------------------------------------------------------------------------------

TEST_F(Runner, ThatGetsNoProcessForItsProgramBecomesIt) {
    WriteFile("refusal", "");
    TEnvironment environment = WithInterposedSystem();
    environment.emplace_back("REFUSE_LAUNCHES", fs::absolute("refusal"));
    for (const auto& [name, value] : environment)
        setenv(name.c_str(), value.c_str(), 1);
    CRunner runner({cShell, "-c",
                    "ls /proc/self/fd | wc -l > about; ps -o sid= -p $$ | tr -d ' ' >> about;"
                    "grep -cE 'Sig(Blk|Ign).*00000$' /proc/self/status >> about; exit 3"});
    for (const auto& [name, value] : environment)
        unsetenv(name.c_str());
    const TLaunchReport report = runner.Report();
    EXPECT_EQ(report.error, 0);
    EXPECT_EQ(report.process, runner.Id());
    EXPECT_EQ(runner.Wait(), 3);
    EXPECT_EQ(ReadFile("about"), "4\n" + std::to_string(report.process) + "\n2\n");
    EXPECT_FALSE(fs::exists(cHistory)) << "its launcher records that";
    EXPECT_TRUE(Outputs().empty());
    EXPECT_EQ(CountIn("files/running"), 0U);
    fs::remove("refusal");
}

TEST_F(Runner, ThatGetsNoDescriptorForItsProgramBecomesIt) {
    rlimit former{};
    getrlimit(RLIMIT_NOFILE, &former);
    // Above those of this test, which the runner does not inherit.
    const int first = open("/dev/null", O_RDONLY | O_CLOEXEC);
    close(first);
    const rlimit few{.rlim_cur = static_cast<rlim_t>(first) + 3, .rlim_max = former.rlim_max};
    setrlimit(RLIMIT_NOFILE, &few);
    CRunner runner({cShell, "-c", "exit 3"});
    setrlimit(RLIMIT_NOFILE, &former);
    EXPECT_EQ(runner.Report().error, 0);
    EXPECT_EQ(runner.Wait(), 3);
    EXPECT_EQ(CountIn("files/running"), 0U);
}

TEST_F(Runner, ThatGetsNoDescriptorForTheProgramOfAJobBecomesItAsTheJobSays) {
    const std::string about = fs::absolute("about");
    fs::remove(about);
    rlimit former{};
    getrlimit(RLIMIT_NOFILE, &former);
    const int first = open("/dev/null", O_RDONLY | O_CLOEXEC);
    close(first);
    const rlimit few{.rlim_cur = static_cast<rlim_t>(first) + 3, .rlim_max = former.rlim_max};
    setrlimit(RLIMIT_NOFILE, &few);
    CRunner runner(
        {RUNNER_PROGRAM, "--chdir / --umask 027 --env 'FILE=" + about +
                             "' --shell '(pwd; umask; env | wc -l) > \"$FILE\"; exit 3'"});
    setrlimit(RLIMIT_NOFILE, &former);
    const TLaunchReport report = runner.Report();
    EXPECT_EQ(report.error, 0);
    EXPECT_EQ(report.process, runner.Id());
    EXPECT_STREQ(report.run, "");
    EXPECT_EQ(runner.Wait(), 3);
    EXPECT_THAT(Lines(about), ElementsAre("/", "0027", testing::_));
    EXPECT_EQ(CountIn("files/running"), 0U);
}

TEST_F(Runner, WhoseRecordCannotBeWrittenLeavesItToWhoeverFindsItsFile) {
    fs::create_directory(cHistory);
    CRunner runner({cShell, "-c", "exit 3"});
    EXPECT_EQ(runner.Wait(), 3);
    const std::vector<TRunRecord> left = DeadRunners();
    ASSERT_EQ(left.size(), 1U);
    EXPECT_EQ(left[0].outcome, TRunRecord::cExited);
    EXPECT_EQ(left[0].number, 3);
    EXPECT_TRUE(DeadRunners().empty());
}

// Nobody could find out that the run has ended.
TEST_F(Runner, ThatCannotMakeItsFileReportsNoRun) {
    WriteFile("files/running", "no directory");
    CRunner runner({cShell, "-c", "exit 3"});
    const TLaunchReport report = runner.Report();
    EXPECT_EQ(report.error, 0);
    EXPECT_STREQ(report.run, "");
    EXPECT_EQ(runner.Wait(), 3);
    EXPECT_EQ(OnlyRun().process, report.process);
    EXPECT_THAT(ReadFile(cErrors), HasSubstr("cannot make the file of run"));
}

TEST_F(Runner, FileThatCannotBeReadIsRecordedAsADeadRunner) {
    fs::create_directory("files/running");
    WriteFile("files/running/an id", "not a record\n");
    WriteFile("files/running/empty", "");
    const std::vector<TRunRecord> dead = DeadRunners();
    ASSERT_EQ(dead.size(), 1U);
    EXPECT_EQ(dead[0].id, "an id");
    EXPECT_EQ(dead[0].outcome, TRunRecord::cRunnerDied);
    EXPECT_EQ(CountIn("files/running"), 0U);
}

// Or the outputs of a wrong clock would be the last ones, and later ones would go.
TEST_F(Runner, IdIsAfterThatOfTheLastOutput) {
    const fs::path outputs = "files/output/a%20task";
    fs::create_directories(outputs);
    WriteFile(outputs / "29991231T235959.999Z-1.log", "");
    for (const char* const after : {"29991231T235960.000Z-", "29991231T235960.001Z-"}) {
        CRunner runner({cShell, "-c", "exit"});
        EXPECT_EQ(runner.Wait(), 0);
        EXPECT_EQ(Outputs().back(), (outputs / History().back().id).string() + ".log");
        EXPECT_TRUE(History().back().id.starts_with(after)) << History().back().id;
    }
}

TEST_F(Runner, RefusesARequestOfAnotherVersion) {
    CForkedChild child([] {
        setenv("VXSCHED_RUN", "1 x", 1);
        const CDescriptor file(open("errors", O_WRONLY | O_CREAT | O_TRUNC, 0600));
        dup2(file.Get(), STDERR_FILENO);
        return execl(RUNNER_PROGRAM, RUNNER_PROGRAM, "/bin/true", nullptr);
    });
    EXPECT_EQ(child.Wait(), 2);
    EXPECT_THAT(ReadFile("errors"), HasSubstr("of another version. Restart vxschedd."));
    for (const char* const request :
         {"", "1", "2 3 manual 1 1 0", "1 3 manual 1 1 9", "1 3 manual 1 1 0 x", "1 x"})
        EXPECT_FALSE(DecodeRunRequest(request)) << request;
}
