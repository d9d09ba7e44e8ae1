// Writes its one parameter to standard output, then to standard error, and prints how many bytes it
// could read from standard input.

#include <unistd.h>

#include <cstdio>

int main(int argc, char** argv) {
    if (argc != 2)
        return 99;
    std::printf("output %s\n", argv[1]);
    std::fflush(stdout);
    std::fprintf(stderr, "error %s\n", argv[1]);
    char character = 0;
    std::printf("input %d\n", static_cast<int>(read(STDIN_FILENO, &character, 1)));
    return 0;
}
