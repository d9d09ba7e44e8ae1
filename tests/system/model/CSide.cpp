#include "CSide.h"

static std::string Semaphore(int value) {
    return ", semaphore " + std::to_string(value);
}

std::string Started(const std::string& path, const std::vector<std::string>& arguments,
                    int semaphore) {
    std::string line = "started " + path;
    for (const std::string& argument : arguments)
        line += " [" + argument + ']';
    return line + Semaphore(semaphore);
}

std::string Slept(unsigned int seconds, int semaphore) {
    return "slept " + std::to_string(seconds) + Semaphore(semaphore);
}

std::string Logged(const std::string& line) {
    return "logged " + line;
}

std::string FlagSet(const std::string& flag, int value) {
    return "set " + flag + " to " + std::to_string(value);
}

std::string Probed(const std::string& command, const std::string& mode, int semaphore) {
    return "probed \"" + command + "\" " + mode + Semaphore(semaphore);
}
