// table-steps STEP...: makes the calls that the add-in makes on its table, in a program that
// interposes them: stat, read, save. The steps no-directory and directory make "files" a file, or a
// directory without a table. Prints for each step whether it succeeded.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

static constexpr char cTable[] = "files/scheduler.dat";

static bool Read() {
    const int table = open(cTable, O_RDWR);
    char byte = 0;
    return table != -1 && read(table, &byte, 1) == 1 && close(table) == 0;
}

static bool Save() {
    const int table = open(cTable, O_RDWR | O_CREAT | O_TRUNC, 0644);
    return table != -1 && write(table, "saved", 5) == 5 && close(table) == 0;
}

static bool Make(const std::string& step) {
    if (step == "stat") {
        struct stat status {};
        return stat(cTable, &status) == 0;
    }
    if (step == "read")
        return Read();
    if (step == "save")
        return Save();
    std::filesystem::remove_all("files");
    if (step == "directory")
        return std::filesystem::create_directory("files");
    return std::ofstream("files").is_open();
}

int main(int argc, char** argv) {
    for (int index = 1; index < argc; ++index)
        std::printf("%s %s\n", argv[index], Make(argv[index]) ? "ok" : "failed");
    return 0;
}
