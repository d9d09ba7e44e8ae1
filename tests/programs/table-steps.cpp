// table-steps STEP...: does with its table what the add-in does, in a program that makes the saves
// in one step: stat, read, save. The steps no-directory and directory make "files" a file, or a
// directory without a table; link makes the table a link to "target", pipe a FIFO. The step partial
// begins a save that an exception ends. These steps do it with a list of tasks: load reads it, add
// saves it with the task "ours", again as it is, drop without the last task; other has another
// process add the task "theirs" to the table, and late has it do so from before the next save to
// after it; single removes the table's second name. Prints for each step whether it succeeded.

#include <COpen.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <vxsched/Table.h>
#include "base/WriteAll.h"
#include "interpose/FileStatus.h"
#include "store/TableFile.h"
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

static std::vector<vxsched::TTaskEntry> gTasks;

static bool Load() {
    const auto size = std::filesystem::file_size(cTable);
    std::string bytes(size, '\0');
    COpen table(cTable, O_RDWR, 0644);
    table.Read(bytes.data(), static_cast<int>(size));
    table.Close();
    gTasks = vxsched::DecodeTable(bytes, {}).tasks;
    return true;
}

static bool SaveTasks() {
    const std::string bytes = vxsched::EncodeTable(gTasks);
    COpen table(cTable, O_RDWR | O_CREAT | O_TRUNC, 0644);
    table.Write(bytes.data(), static_cast<int>(bytes.size()));
    table.Close();
    return true;
}

static void WaitForReplacement(int table) {
    struct stat opened {};
    struct stat named {};
    do {
        usleep(1000);
        fstat(table, &opened);
        stat(cTable, &named);
    } while (opened.st_ino == named.st_ino);
}

// As the add-in does in a process that has read the table, without the store mutex.
static bool AddAsOther(bool isLate) {
    auto tasks = vxsched::DecodeTable(vxsched::ReadTableBytes("."), {}).tasks;
    tasks.emplace_back().name = "theirs";
    const std::string bytes = vxsched::EncodeTable(tasks);
    int truncated[2];
    if (pipe(truncated) == -1)
        return false;
    const pid_t other = fork();
    if (other == 0) {
        const int table = open(cTable, O_RDWR | O_TRUNC);
        close(truncated[0]);
        close(truncated[1]);
        if (isLate)
            WaitForReplacement(table);
        _exit(WriteAll(table, bytes) ? 0 : 1);
    }
    close(truncated[1]);
    char none = 0;
    read(truncated[0], &none, 1);
    close(truncated[0]);
    return isLate || waitpid(other, nullptr, 0) == other;
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
    if (step == "load")
        return Load();
    if (step == "add")
        gTasks.emplace_back().name = "ours";
    if (step == "drop")
        gTasks.pop_back();
    if (step == "single")
        return std::filesystem::remove("another name");
    if (step == "add" || step == "again" || step == "drop")
        return SaveTasks();
    if (step == "other" || step == "late")
        return AddAsOther(step == "late");
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
