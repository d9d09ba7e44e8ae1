// record-launch FILE: writes its arguments, signal mask, dispositions and open descriptors to FILE,
// then exits.

#include <dirent.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "WriteInOneStep.h"

int main(int argc, char** argv) {
    if (argc < 2)
        return 2;
    std::string text = "arguments " + std::to_string(argc) + '\n';
    for (int index = 0; index < argc; ++index)
        text += std::string("argument ") + argv[index] + '\n';

    sigset_t mask;
    sigprocmask(SIG_BLOCK, nullptr, &mask);
    for (int number = 1; number < NSIG; ++number) {
        if (sigismember(&mask, number) == 1)
            text += "blocked " + std::to_string(number) + '\n';
        struct sigaction action {};
        if (sigaction(number, nullptr, &action) == 0 && action.sa_handler == SIG_IGN)
            text += "ignored " + std::to_string(number) + '\n';
    }

    DIR* const directory = opendir("/proc/self/fd");
    while (const dirent* entry = readdir(directory)) {
        const int number = std::atoi(entry->d_name);
        if (entry->d_name[0] != '.' && number != dirfd(directory))
            text += "descriptor " + std::to_string(number) + '\n';
    }
    closedir(directory);

    return WriteInOneStep(argv[1], text);
}
