// record_start FILE: appends the time at which it runs, in nanoseconds since 1970, as a line to FILE,
// in one write.

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>

int main(int argc, char** argv) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const int file = argc == 2 ? open(argv[1], O_WRONLY | O_APPEND | O_CREAT, 0600) : -1;
    char line[64];
    const int length = std::snprintf(
        line, sizeof line, "%lld\n",
        static_cast<long long>(now.tv_sec) * 1'000'000'000 + static_cast<long long>(now.tv_nsec));
    return write(file, line, static_cast<size_t>(length)) == length ? 0 : 1;
}
