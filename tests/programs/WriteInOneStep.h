#pragma once

#include <cstdio>
#include <string>

// Writes a file under another name first, so that a reader never finds half of it. Returns the exit
// status of the program.
inline int WriteInOneStep(const std::string& path, const std::string& text) {
    const std::string temporary = path + ".new";
    std::FILE* const file = std::fopen(temporary.c_str(), "w");
    if (file == nullptr)
        return 1;
    std::fwrite(text.data(), 1, text.size(), file);
    std::fclose(file);
    return std::rename(temporary.c_str(), path.c_str()) == 0 ? 0 : 1;
}
