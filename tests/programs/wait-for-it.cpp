// Runs until the file that its one parameter names is there, then says so in another beside it. It
// ends by itself in the end, should nobody ever make the file.

#include <sys/stat.h>
#include <time.h>

#include <cstdio>
#include <string>

int main(int argc, char** argv) {
    if (argc != 2)
        return 99;
    struct stat status {};
    for (int round = 0; stat(argv[1], &status) != 0; ++round) {
        if (round > 60'000)
            return 98;
        const timespec pause{.tv_sec = 0, .tv_nsec = 2'000'000};
        nanosleep(&pause, nullptr);
    }
    std::FILE* const seen = std::fopen((std::string(argv[1]) + ".seen").c_str(), "w");
    return seen != nullptr && std::fclose(seen) == 0 ? 0 : 1;
}
