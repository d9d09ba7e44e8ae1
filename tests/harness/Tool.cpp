#include "Tool.h"

#include <fcntl.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <filesystem>

#include "Process.h"

namespace {

std::vector<char*> Pointers(const std::vector<std::string>& arguments) {
    std::vector<char*> pointers{const_cast<char*>(TOOL_PROGRAM)};
    for (const std::string& argument : arguments)
        pointers.push_back(const_cast<char*>(argument.c_str()));
    pointers.push_back(nullptr);
    return pointers;
}

[[noreturn]] void Become(const std::vector<char*>& arguments, const TEnvironment& environment) {
    for (const auto& [name, value] : environment)
        setenv(name.c_str(), value.c_str(), 1);
    execv(arguments[0], arguments.data());
    std::perror(arguments[0]);
    _exit(127);
}

int Collect(pid_t process) {
    int status = 0;
    while (wait4(process, &status, 0, nullptr) == -1 && errno == EINTR) {
    }
    return WIFSIGNALED(status) ? 1000 + WTERMSIG(status) : WEXITSTATUS(status);
}

std::string TakeFile(const std::string& path) {
    std::string content = ReadFile(path);
    std::filesystem::remove(path);
    return content;
}

}  // namespace

TToolRun RunTool(const std::vector<std::string>& arguments, const TEnvironment& environment,
                 const std::string& input) {
    static std::atomic<int> gRuns{0};
    const std::string base = std::filesystem::absolute("tool-run-" + std::to_string(++gRuns));
    const std::vector<char*> pointers = Pointers(arguments);
    WriteFile(base + ".in", input);
    const pid_t process = fork();
    if (process == 0) {
        const int flags = O_WRONLY | O_CREAT | O_TRUNC;
        dup2(open((base + ".in").c_str(), O_RDONLY), STDIN_FILENO);
        dup2(open((base + ".out").c_str(), flags, 0600), STDOUT_FILENO);
        dup2(open((base + ".err").c_str(), flags, 0600), STDERR_FILENO);
        Become(pointers, environment);
    }
    TToolRun run;
    run.status = Collect(process);
    run.output = TakeFile(base + ".out");
    run.error = TakeFile(base + ".err");
    std::filesystem::remove(base + ".in");
    return run;
}

TToolRun RunToolOnTerminal(const std::vector<std::string>& arguments, unsigned short columns,
                           const TEnvironment& environment) {
    const std::vector<char*> pointers = Pointers(arguments);
    const winsize size{.ws_row = 24, .ws_col = columns, .ws_xpixel = 0, .ws_ypixel = 0};
    int terminal = -1;
    const pid_t process = forkpty(&terminal, nullptr, nullptr, &size);
    if (process == 0)
        Become(pointers, environment);
    TToolRun run;
    char block[4096];
    // When the other side closes, a terminal's read fails.
    for (ssize_t count = 0; (count = read(terminal, block, sizeof block)) > 0;) {
        for (const char* byte = block; byte < block + count; ++byte) {
            if (*byte != '\r')
                run.output += *byte;
        }
    }
    close(terminal);
    run.status = Collect(process);
    return run;
}

TEnvironment WithInterposedSystem() {
    return {{"LD_PRELOAD", INTERPOSED_SYSTEM}, {"ASAN_OPTIONS", "verify_asan_link_order=0"}};
}

TEnvironment AtTime(long seconds) {
    TEnvironment environment = WithInterposedSystem();
    environment.emplace_back("FAKE_TIME", std::to_string(seconds));
    return environment;
}
