// vxschedd: runs the scheduler add-in in the foreground until it is told to stop.

#include <VXC_Information.h>
#include <VXC_Log.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <iostream>
#include <system_error>

#include "host/CAddInLibrary.h"
#include "host/CDirectoryLock.h"
#include "host/CHostError.h"
#include "host/CStartedPrograms.h"
#include "host/HostOptions.h"

static void Log(const std::string& text) {
    VXC_LogMessage("vxschedd: " + text);
}

// The host has no signal handler at all: one that ran on the worker would cut short its wait for
// the store mutex, and the add-in would go on without it. What the host wants to know is blocked on
// every thread and read from a descriptor; a write to a closed pipe or beyond a size limit is
// blocked too and so becomes an error. All else keeps its default. Started programs inherit none of
// this: see ProgramStart.cpp.
static int BlockSignals() {
    for (int number = 1; number < NSIG; ++number)
        std::signal(number, SIG_DFL);
    sigset_t wanted;
    sigemptyset(&wanted);
    for (const int number : {SIGTERM, SIGINT, SIGCHLD})
        sigaddset(&wanted, number);
    sigset_t blocked = wanted;
    for (const int number : {SIGPIPE, SIGXFSZ})
        sigaddset(&blocked, number);
    sigprocmask(SIG_SETMASK, &blocked, nullptr);
    const int descriptor = signalfd(-1, &wanted, SFD_CLOEXEC | SFD_NONBLOCK);
    if (descriptor == -1)
        throw std::system_error(errno, std::generic_category(), "cannot make a signal descriptor");
    return descriptor;
}

// A host may be started with some of these closed. The next file that it opens, the table for one,
// would get the number, and be written to as the log.
static void OpenStandardDescriptors() {
    int descriptor = 0;
    do {
        descriptor = open("/dev/null", O_RDWR);
    } while (descriptor >= 0 && descriptor <= STDERR_FILENO);
    if (descriptor >= 0)
        close(descriptor);
}

static void EnterDirectory(const std::string& directory) {
    if (chdir(directory.c_str()) == -1)
        throw CHostError(cNoDirectory,
                         fmt::format("cannot work in {}: {}. Create the directory, or name another "
                                     "with --directory.",
                                     directory, std::strerror(errno)));
    if (mkdir("files", 0755) == -1 && errno != EEXIST)
        throw CHostError(cNoDirectory,
                         fmt::format("cannot create {}/files: {}. Run vxschedd as a user who may "
                                     "write there.",
                                     directory, std::strerror(errno)));
}

// Runs on the thread that noticed, the worker or the one that loads the add-in.
static void OnInformation(const std::string& name, int value, void* /*context*/) {
    Log(fmt::format("the add-in reports {} = {}", name, value));
}

// Waits for the signal to stop, and meanwhile collects the programs that end. Returns the signal's
// number.
static int WaitForStop(int signalDescriptor, CStartedPrograms& programs) {
    for (;;) {
        pollfd sources[] = {{.fd = signalDescriptor, .events = POLLIN, .revents = 0},
                            {.fd = programs.WakeDescriptor(), .events = POLLIN, .revents = 0}};
        if (poll(sources, std::size(sources), -1) == -1 && errno != EINTR)
            throw std::system_error(errno, std::generic_category(), "cannot wait for signals");
        signalfd_siginfo signal{};
        while (read(signalDescriptor, &signal, sizeof signal) == sizeof signal) {
            if (signal.ssi_signo != SIGCHLD)
                return static_cast<int>(signal.ssi_signo);
        }
        programs.CollectFinished();
    }
}

// The add-in's worker, running for as long as this object lives: whatever ends the host, the worker is stopped
// before the add-in is destroyed.
class CRunningWorker {
public:
    // An add-in whose thread could not be started must not be destroyed: it counts as running, and would be joined.
    // So the process ends here, without finalisers.
    explicit CRunningWorker(CAddInInterface& startedAddIn) : addIn(startedAddIn) {
        if (const int error = addIn.Start(); error != 0) {
            std::cerr << "vxschedd: cannot start the scheduler's thread: " << std::strerror(error)
                      << ". Look at the limits of threads and memory." << std::endl;
            _exit(cFailed);
        }
    }
    ~CRunningWorker() {
        addIn.Stop();
        addIn.Unload();
    }
    CRunningWorker(const CRunningWorker&) = delete;
    CRunningWorker& operator=(const CRunningWorker&) = delete;

private:
    CAddInInterface& addIn;
};

static void Run(const THostOptions& options) {
    const int signalDescriptor = BlockSignals();
    EnterDirectory(options.directory);
    const CDirectoryLock lock(options.directory);
    VXC_SetInformationListener(OnInformation, nullptr);
    CStartedPrograms& programs = CStartedPrograms::Instance();

    CAddInLibrary library(options.addIn);
    {
        const CRunningWorker worker(library.AddIn());
        Log(fmt::format("running in {} as process {}", options.directory, getpid()));
        const int signal = WaitForStop(signalDescriptor, programs);
        Log(fmt::format("stopping on SIG{}", sigabbrev_np(signal)));
    }
    programs.CollectFinished();
    if (const std::size_t count = programs.Count(); count > 0)
        Log(fmt::format("leaving {} started program(s) running", count));
}

int main(int argc, char** argv) {
    OpenStandardDescriptors();
    try {
        const std::optional<THostOptions> options = ParseHostOptions(argc, argv);
        if (options) {
            Run(*options);
            Log("stopped");
        }
        return cStopped;
    } catch (const CHostError& error) {
        std::cerr << "vxschedd: " << error.what() << '\n';
        return error.status;
    } catch (const std::exception& error) {
        std::cerr << "vxschedd: " << error.what() << '\n';
        return cFailed;
    }
}
