#include "host/CStartedPrograms.h"

#include <VXC_Log.h>
#include <fmt/chrono.h>
#include <fmt/format.h>
#include <sys/eventfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

CStartedPrograms& CStartedPrograms::Instance() {
    static CStartedPrograms instance;
    return instance;
}

CStartedPrograms::CStartedPrograms() : wakeDescriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (wakeDescriptor == -1)
        throw std::system_error(errno, std::generic_category(), "cannot make an event descriptor");
}

void CStartedPrograms::Started(pid_t process, const std::string& program,
                               const std::string& parameter) {
    const std::string description = fmt::format("{} \"{}\"", program, parameter);
    VXC_LogMessage(fmt::format("vxschedd: started process {}: {}", process, description));
    const std::lock_guard<std::mutex> lock(mutex);
    programs[process] = {.description = description, .start = std::chrono::steady_clock::now()};
}

void CStartedPrograms::Asked(pid_t process, pid_t result, int status) {
    const std::lock_guard<std::mutex> lock(mutex);
    const auto found = programs.find(process);
    if (found == programs.end())
        return;
    if (result == process) {
        LogEnd(process, found->second, status);
        programs.erase(found);
        return;
    }
    found->second.asked = true;
    // The signal of its end may have come, and been consumed, while it still had to be left alone.
    static_cast<void>(eventfd_write(wakeDescriptor, 1));
}

void CStartedPrograms::CollectFinished() {
    eventfd_t ignored = 0;
    static_cast<void>(eventfd_read(wakeDescriptor, &ignored));
    const std::lock_guard<std::mutex> lock(mutex);
    for (auto next = programs.begin(); next != programs.end();) {
        const auto [process, program] = *next;
        const auto current = next++;
        if (!program.asked)
            continue;
        // Through wait4, since waitpid is this program's own and reports here.
        int status = 0;
        const pid_t result = wait4(process, &status, WNOHANG, nullptr);
        if (result == 0)
            continue;
        if (result == process)
            LogEnd(process, program, status);
        else
            VXC_LogMessage(
                fmt::format("vxschedd: process {} is gone, how it ended is not known: {}", process,
                            program.description));
        programs.erase(current);
    }
}

std::size_t CStartedPrograms::Count() {
    const std::lock_guard<std::mutex> lock(mutex);
    return programs.size();
}

void CStartedPrograms::LogEnd(pid_t process, const TProgram& program, int status) {
    const std::chrono::duration<double> time = std::chrono::steady_clock::now() - program.start;
    const std::string how = WIFSIGNALED(status)
                                ? fmt::format("was killed by signal {} ({})", WTERMSIG(status),
                                              sigabbrev_np(WTERMSIG(status)))
                                : fmt::format("exited with status {}", WEXITSTATUS(status));
    VXC_LogMessage(fmt::format("vxschedd: process {} {} after {:.1f} s: {}", process, how,
                               time.count(), program.description));
}
