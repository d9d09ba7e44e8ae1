// wait-for-it FILE: runs until FILE exists, then creates FILE.seen and exits. It exits after two
// minutes if FILE is never created.

#include <sys/stat.h>
#include <time.h>

#include <cstdio>
#include <string>

int main(int argc, char** argv) {
    if (argc != 2)
        return 99;
    struct stat status {};
    for (int iteration = 0; stat(argv[1], &status) != 0; ++iteration) {
        if (iteration > 60'000)
            return 98;
        const timespec pause{.tv_sec = 0, .tv_nsec = 2'000'000};
        nanosleep(&pause, nullptr);
    }
    std::FILE* const seen = std::fopen((std::string(argv[1]) + ".seen").c_str(), "w");
    return seen != nullptr && std::fclose(seen) == 0 ? 0 : 1;
}
