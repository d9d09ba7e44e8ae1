// record-environment FILE: writes its variables whose names begin with VXSCHED_ to FILE, each
// followed by a line break, then exits.

#include <unistd.h>

#include <cstring>
#include <string>

#include "WriteInOneStep.h"

int main(int argc, char** argv) {
    if (argc != 2)
        return 99;
    std::string text;
    for (char** variable = environ; *variable != nullptr; ++variable) {
        if (std::strncmp(*variable, "VXSCHED_", 8) == 0)
            text += std::string(*variable) + '\n';
    }
    return WriteInOneStep(argv[1], text);
}
