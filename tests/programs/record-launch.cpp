// record-launch FILE: writes its arguments, signal mask, dispositions and open descriptors to FILE,
// then exits.

#include <dirent.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

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

    // Renamed into place, so that a reader never finds half of it.
    const std::string temporary = std::string(argv[1]) + ".new";
    std::FILE* const file = std::fopen(temporary.c_str(), "w");
    if (file == nullptr)
        return 1;
    std::fwrite(text.data(), 1, text.size(), file);
    std::fclose(file);
    return std::rename(temporary.c_str(), argv[1]) == 0 ? 0 : 1;
}
