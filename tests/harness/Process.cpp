#include "Process.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <thread>

static int Collect(pid_t process) {
    int status = 0;
    while (wait4(process, &status, 0, nullptr) == -1 && errno == EINTR) {
    }
    return WIFSIGNALED(status) ? 1000 + WTERMSIG(status) : WEXITSTATUS(status);
}

CForkedChild::CForkedChild(const std::function<int()>& body) : process(fork()) {
    if (process == 0)
        _exit(body());
}

CForkedChild::~CForkedChild() {
    if (process > 0) {
        Kill(SIGKILL);
        Collect(process);
    }
}

void CForkedChild::Kill(int signal) const {
    kill(process, signal);
}

int CForkedChild::Wait() {
    const int result = Collect(process);
    process = -1;
    return result;
}

bool EnterNamespaces(int flags) {
    if (unshare(flags) == 0)
        return true;
    const std::string uid = std::to_string(getuid());
    const std::string gid = std::to_string(getgid());
    if (unshare(CLONE_NEWUSER | flags) != 0)
        return false;
    WriteFile("/proc/self/setgroups", "deny");
    WriteFile("/proc/self/uid_map", uid + ' ' + uid + " 1");
    WriteFile("/proc/self/gid_map", gid + ' ' + gid + " 1");
    return true;
}

bool DropGainedCapabilities() {
    return geteuid() == 0 || DropCapabilities();
}

int RunInPidNamespace(const std::function<int()>& body) {
    constexpr int cNotPermitted = 125;
    CForkedChild outer([&] {
        if (!EnterNamespaces(CLONE_NEWPID | CLONE_NEWNS))
            return cNotPermitted;
        CForkedChild first([&] {
            if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
                mount("proc", "/proc", "proc", 0, nullptr) != 0 || !DropGainedCapabilities())
                return cNotPermitted;
            return body();
        });
        return first.Wait();
    });
    const int result = outer.Wait();
    return result == cNotPermitted ? -1 : result;
}

bool HideProc() {
    return EnterNamespaces(CLONE_NEWNS) &&
           mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("none", "/proc", "tmpfs", 0, nullptr) == 0;
}

CProgram::CProgram(const std::vector<std::string>& arguments) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        std::abort();
    std::vector<char*> pointers;
    for (const std::string& argument : arguments)
        pointers.push_back(const_cast<char*>(argument.c_str()));
    pointers.push_back(nullptr);
    process = fork();
    if (process == 0) {
        dup2(ends[1], STDOUT_FILENO);
        dup2(ends[1], STDERR_FILENO);
        execv(pointers[0], pointers.data());
        std::perror(pointers[0]);
        _exit(127);
    }
    close(ends[1]);
    descriptor = ends[0];
}

CProgram::~CProgram() {
    if (process > 0) {
        Kill(SIGKILL);
        Collect(process);
    }
    close(descriptor);
}

void CProgram::Kill(int signal) const {
    kill(process, signal);
}

bool CProgram::ReadSome() {
    char block[4096];
    const ssize_t count = read(descriptor, block, sizeof block);
    if (count > 0)
        output.append(block, static_cast<std::size_t>(count));
    return count > 0;
}

bool CProgram::WaitForOutput(const std::string& part) {
    while (output.find(part) == std::string::npos) {
        if (!ReadSome())
            return false;
    }
    return true;
}

// Waits for the program first: programs that it started may keep the pipe open for longer.
int CProgram::Wait() {
    const int result = Collect(process);
    process = -1;
    fcntl(descriptor, F_SETFL, O_NONBLOCK);
    while (ReadSome()) {
    }
    return result;
}

static std::map<std::string, int (*)(const std::vector<std::string>&)>& Roles() {
    static std::map<std::string, int (*)(const std::vector<std::string>&)> roles;
    return roles;
}

TRole::TRole(const char* name, int (*body)(const std::vector<std::string>& arguments)) {
    Roles()[name] = body;
}

static constexpr char cRoleOption[] = "--play=";

std::vector<std::string> ThisProgramAs(const std::string& role,
                                       const std::vector<std::string>& arguments) {
    char self[4096];
    const ssize_t length = readlink("/proc/self/exe", self, sizeof self);
    std::vector<std::string> command{std::string(self, static_cast<std::size_t>(length)),
                                     cRoleOption + role};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return command;
}

int RunRole(int argc, char** argv) {
    if (argc < 2 || std::strncmp(argv[1], cRoleOption, std::strlen(cRoleOption)) != 0)
        return -1;
    const auto role = Roles().find(argv[1] + std::strlen(cRoleOption));
    if (role == Roles().end()) {
        std::fprintf(stderr, "no such role: %s\n", argv[1]);
        return 126;
    }
    return role->second(std::vector<std::string>(argv + 2, argv + argc));
}

void WaitUntil(const std::function<bool()>& condition) {
    while (!condition())
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

bool DropCapabilities() {
    // From the bounding set as well, or root would regain them with the next exec.
    for (unsigned long capability = 0; capability <= CAP_LAST_CAP; ++capability)
        prctl(PR_CAPBSET_DROP, capability);
    __user_cap_header_struct header{.version = _LINUX_CAPABILITY_VERSION_3, .pid = 0};
    __user_cap_data_struct none[_LINUX_CAPABILITY_U32S_3]{};
    return syscall(SYS_capset, &header, none) == 0;
}

bool HasEnded(pid_t process) {
    const std::string stat = ReadFile("/proc/" + std::to_string(process) + "/stat");
    return stat.empty() || stat.find(") Z ") != std::string::npos;
}

std::optional<pid_t> ChildOf(pid_t process) {
    const std::string id = std::to_string(process);
    std::istringstream children(ReadFile("/proc/" + id + "/task/" + id + "/children"));
    pid_t child = 0;
    return children >> child ? std::optional(child) : std::nullopt;
}

std::string ReadFile(const std::string& path) {
    const std::ifstream file(path, std::ios::binary);
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

bool HasChild(pid_t parent, const std::string& name) {
    const std::string wanted = '(' + name + ") S " + std::to_string(parent) + ' ';
    std::error_code error;
    for (std::filesystem::directory_iterator entry("/proc", error);
         !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
        if (ReadFile(entry->path() / "stat").find(wanted) != std::string::npos)
            return true;
    }
    return false;
}

std::size_t CountLines(const std::string& path) {
    const std::string content = ReadFile(path);
    return static_cast<std::size_t>(std::count(content.begin(), content.end(), '\n'));
}

void WriteFile(const std::string& path, const std::string& content) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << content;
}
