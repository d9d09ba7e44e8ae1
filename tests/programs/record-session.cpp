// record-session FILE: writes its user, its environment and what its standard descriptors are to
// FILE, and a line each to its standard output and error, then exits.

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
    std::printf("output \033[1m of the program\n");
    std::fflush(stdout);
    std::fprintf(stderr, "error of the program\n");
    return WriteInOneStep(argv[1], text);
}
