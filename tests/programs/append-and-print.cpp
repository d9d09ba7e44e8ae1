// append-and-print FILE: appends the string FILE as a line to the file of that name, in one write,
// and prints the line.

#include <fcntl.h>
#include <unistd.h>

#include <string>

int main(int argc, char** argv) {
    if (argc != 2)
        return 1;
    const std::string line = std::string(argv[1]) + '\n';
    const auto size = static_cast<ssize_t>(line.size());
    const int file = open(argv[1], O_WRONLY | O_APPEND | O_CREAT, 0644);
    if (write(file, line.data(), line.size()) != size)
        return 1;
    return write(STDOUT_FILENO, line.data(), line.size()) == size ? 0 : 1;
}
