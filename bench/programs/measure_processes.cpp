// Runs commands one after the other and prints the cost of each run: measure_processes ITERATIONS
//
// Standard input has a line for each command, with fields separated by tabs: its name, a shell
// command that prepares each run (may be empty, is not measured), the program's path, its
// arguments. In each iteration every command runs once, in a new random order. Standard output gets
// a line for each run: name, wall-clock time and processor time in nanoseconds, peak memory in KiB;
// the last two are of the process and of the children that it waited for. Standard input and output
// of the commands are /dev/null. The exit status is 1 when a command fails.
//
// A child's peak memory includes this program's at the time of the launch, so this program is small
// and linked statically.

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <numeric>
#include <random>
#include <string>
#include <vector>

namespace {

struct TCommand {
    std::string name;
    std::string preparation;
    std::vector<std::string> arguments;  // the program's path first
};

struct TCost {
    long long real = 0;       // nanoseconds
    long long processor = 0;  // nanoseconds
    long memory = 0;          // KiB
};

posix_spawn_file_actions_t gNoInputNoOutput;

std::vector<std::string> Split(const std::string& line) {
    std::vector<std::string> fields;
    std::size_t begin = 0;
    for (std::size_t end = 0; end != std::string::npos; begin = end + 1) {
        end = line.find('\t', begin);
        fields.push_back(line.substr(begin, end - begin));
    }
    return fields;
}

std::vector<TCommand> ReadCommands() {
    std::vector<TCommand> commands;
    char* line = nullptr;
    std::size_t size = 0;
    while (getline(&line, &size, stdin) != -1) {
        std::string content = line;
        if (content.ends_with('\n'))
            content.pop_back();
        std::vector<std::string> fields = Split(content);
        if (fields.size() < 3) {
            std::fprintf(stderr, "not a command line: %s\n", content.c_str());
            std::exit(2);
        }
        commands.push_back({fields[0], fields[1], {fields.begin() + 2, fields.end()}});
    }
    std::free(line);
    return commands;
}

long long NanosecondsOf(const timeval& time) {
    return time.tv_sec * 1'000'000'000LL + time.tv_usec * 1'000LL;
}

long long Clock() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * 1'000'000'000LL + time.tv_nsec;
}

TCost Run(const TCommand& command) {
    if (!command.preparation.empty() && std::system(command.preparation.c_str()) != 0) {
        std::fprintf(stderr, "%s could not be prepared\n", command.name.c_str());
        std::exit(1);
    }
    std::vector<char*> arguments;
    for (const std::string& argument : command.arguments)
        arguments.push_back(const_cast<char*>(argument.c_str()));
    arguments.push_back(nullptr);
    pid_t process = -1;
    int status = -1;
    rusage usage{};
    const long long start = Clock();
    if (posix_spawn(&process, arguments[0], &gNoInputNoOutput, nullptr, arguments.data(),
                    environ) != 0 ||
        wait4(process, &status, 0, &usage) != process || status != 0) {
        std::fprintf(stderr, "%s failed: wait status %d\n", command.name.c_str(), status);
        std::exit(1);
    }
    return {.real = Clock() - start,
            .processor = NanosecondsOf(usage.ru_utime) + NanosecondsOf(usage.ru_stime),
            .memory = usage.ru_maxrss};
}

}  // namespace

int main(int argc, char** argv) {
    const int iterations = argc == 2 ? std::atoi(argv[1]) : 0;
    if (iterations < 1) {
        std::fputs("usage: measure_processes ITERATIONS\n", stderr);
        return 2;
    }
    posix_spawn_file_actions_init(&gNoInputNoOutput);
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        posix_spawn_file_actions_addopen(&gNoInputNoOutput, descriptor, "/dev/null", O_RDWR, 0);
    const std::vector<TCommand> commands = ReadCommands();
    std::vector<std::size_t> order(commands.size());
    std::iota(order.begin(), order.end(), 0);
    std::minstd_rand random(static_cast<unsigned int>(std::time(nullptr)));
    for (int iteration = 0; iteration < iterations; ++iteration) {
        std::shuffle(order.begin(), order.end(), random);
        for (const std::size_t index : order) {
            const TCost cost = Run(commands[index]);
            std::printf("%s\t%lld\t%lld\t%ld\n", commands[index].name.c_str(), cost.real,
                        cost.processor, cost.memory);
        }
    }
    return 0;
}
