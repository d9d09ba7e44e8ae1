// table-steps STEP...: does with its table what the add-in does, in a program that makes the saves
// in one step: stat, read, save. The steps no-directory and directory make "files" a file, or a
// directory without a table; link makes the table a link to "target", pipe a FIFO. The step partial
// begins a save that an exception ends. Prints for each step whether it succeeded.

#include <COpen.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include "interpose/FileStatus.h"
#include "store/TableSaves.h"

static constexpr char cTable[] = "files/scheduler.dat";

static bool Read() {
    COpen table(cTable, O_RDWR, 0644);
    char byte = 0;
    table.Read(&byte, 1);
    table.Close();
    return true;
}

static bool Save(bool isPartial) {
    COpen table(cTable, O_RDWR | O_CREAT | O_TRUNC, 0644);
    if (!table.IsValid())
        return false;
    table.Write("saved", 5);
    if (isPartial)
        throw std::runtime_error("the save ends early");
    table.Close();
    return true;
}

static bool Make(const std::string& step) {
    if (step == "stat") {
        struct stat status {};
        return stat(cTable, &status) == 0;
    }
    if (step == "read")
        return Read();
    if (step == "save" || step == "partial")
        return Save(step == "partial");
    std::filesystem::remove_all("files");
    if (step == "no-directory")
        return std::ofstream("files").is_open();
    std::filesystem::create_directory("files");
    if (step == "link")
        std::filesystem::create_symlink("../target", cTable);
    return step != "pipe" || mkfifo(cTable, 0644) == 0;
}

static bool Try(const std::string& step) {
    try {
        return Make(step);
    } catch (const std::exception&) {
        return false;
    }
}

int main(int argc, char** argv) {
    vxsched::SaveTableInOneStep();
    SetFileStatusListener(vxsched::NoteFileStatus);
    for (int index = 1; index < argc; ++index)
        std::printf("%s %s\n", argv[index], Try(argv[index]) ? "ok" : "failed");
    return 0;
}
