// Exits with the status of the parameter "status N", or is killed by the signal of "signal N".

#include <signal.h>

#include <cstdlib>
#include <cstring>

int main(int argc, char** argv) {
    if (argc != 2)
        return 99;
    const int number = std::atoi(std::strchr(argv[1], ' ') + 1);
    if (std::strncmp(argv[1], "signal", 6) == 0)
        raise(number);
    return number;
}
