// Uses at least as much processor time and memory as its one parameter asks for:
// "use MILLISECONDS MIB".

#include <time.h>

#include <cstdio>
#include <vector>

static long MillisecondsUsed() {
    timespec used{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return used.tv_sec * 1000 + used.tv_nsec / 1'000'000;
}

int main(int argc, char** argv) {
    long milliseconds = 0;
    unsigned long mebibytes = 0;
    if (argc != 2 || std::sscanf(argv[1], "use %ld %lu", &milliseconds, &mebibytes) != 2)
        return 99;
    std::vector<char> memory(mebibytes << 20, 'm');
    volatile char sum = 0;
    while (MillisecondsUsed() < milliseconds) {
        for (const char byte : memory)
            sum = static_cast<char>(sum + byte);
    }
    return 0;
}
