// record-session FILE: writes its user, its environment, what its standard descriptors are and whether
// its session has a terminal to FILE, and a line each to its standard output and error, then exits.

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "WriteInOneStep.h"

int main(int argc, char** argv) {
    if (argc != 2)
        return 99;
    std::string text = "session\nuser " + std::to_string(getuid()) + '\n';
    for (char** variable = environ; *variable != nullptr; ++variable)
        text += std::string(*variable) + '\n';
    char target[4096];
    const ssize_t length = readlink("/proc/self/fd/0", target, sizeof target);
    text +=
        "input " + std::string(target, length > 0 ? static_cast<std::size_t>(length) : 0) + '\n';
    int terminals = 0;
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        terminals += isatty(descriptor);
    text += "terminals " + std::to_string(terminals) + '\n';
    const int terminal = open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC);
    text += std::string("terminal of the session ") + (terminal >= 0 ? "yes" : "no") + '\n';
    if (terminal >= 0)
        close(terminal);
    std::printf("output \033[1m of the program\n");
    std::fflush(stdout);
    std::fprintf(stderr, "error of the program\n");
    return WriteInOneStep(argv[1], text);
}
