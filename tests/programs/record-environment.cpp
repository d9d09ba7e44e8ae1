// record-environment FILE: writes its variables whose names begin with VXSCHED_ to FILE, each
// followed by a line break, then exits.

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

int main(int argc, char** argv) {
    if (argc != 2)
        return 99;
    std::string text;
    for (char** variable = environ; *variable != nullptr; ++variable) {
        if (std::strncmp(*variable, "VXSCHED_", 8) == 0)
            text += std::string(*variable) + '\n';
    }
    // Renamed into place, so that a reader never finds half of it.
    const std::string temporary = std::string(argv[1]) + ".new";
    std::FILE* const file = std::fopen(temporary.c_str(), "w");
    if (file == nullptr)
        return 1;
    std::fwrite(text.data(), 1, text.size(), file);
    std::fclose(file);
    return std::rename(temporary.c_str(), argv[1]) == 0 ? 0 : 1;
}
