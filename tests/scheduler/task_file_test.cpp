// The task file: writing, reading, and the handling of a damaged file.

#include <COpen.h>
#include <VXC_Information.h>
#include <VXC_Log.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <scheduler/Scheduler.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <functional>
#include <optional>
#include <stdexcept>

#include "InsideLibrary.h"
#include "LogCapture.h"
#include "Process.h"
#include "StoreSemaphore.h"
#include "TableCalls.h"
#include "TableFile.h"

// ---- Interposed: the support library's raw read -----------------------------------------------

static bool gDeliverNothing = false;

// Called by the add-in on the test's thread. Reads nothing, without an error, if gDeliverNothing.
void COpen::Read(void* data, int length) {
    if (!gDeliverNothing)
        reinterpret_cast<void (*)(COpen*, void*, int)>(dlsym(RTLD_NEXT, "_ZN5COpen4ReadEPvi"))(
            this, data, length);
}

// ---- The list, as rows ------------------------------------------------------------------------

class TaskFile : public testing::Test {
protected:
    void SetUp() override {
        WriteTable({});
        inside.emplace();
        TakeTableCalls();
    }

    TRows List() {
        TRows rows;
        for (const TTask* task : *inside->TaskList())
            rows.push_back({task->name, task->nextExecution, task->lastExecuted, task->period,
                            task->program, task->parameters,
                            static_cast<std::uint32_t>(task->paused)});
        return rows;
    }

    void SetList(const TRows& rows) {
        inside->ClearTasks();
        for (const TRow& row : rows) {
            auto* const task = new TTask;
            task->name = row.name;
            task->nextExecution = row.next;
            task->lastExecuted = row.last;
            task->period = row.period;
            task->program = row.program;
            task->parameters = row.parameters;
            task->paused = static_cast<std::int32_t>(row.paused);
            inside->TaskList()->push_back(task);
        }
    }

    // Expects the handling of a file that cannot be read to its end.
    void ExpectReset() {
        EXPECT_FALSE(inside->LoadTasks());
        EXPECT_EQ(List(), TRows());
        EXPECT_EQ(ReadFile(cTable), std::string(8, '\0'));
        EXPECT_EQ(log.Take(), std::vector<std::string>({cReadingFailed}));
        int flag = 0;
        EXPECT_TRUE(VXC_GetInformation("TasksDeleted", flag));
        EXPECT_EQ(flag, 1);
    }

    static bool Flagged() {
        int flag = 0;
        return VXC_GetInformation("TasksDeleted", flag);
    }

    CLogCapture log;
    std::optional<CInsideLibrary> inside;
};

static std::string EveryByte() {
    std::string bytes;
    for (int byte = 0; byte < 256; ++byte)
        bytes += static_cast<char>(byte);
    return bytes;
}

static TRows SomeRows() {
    return {{"backup", 1'700'000'000, 1'600'000'000, 24, "/opt/tools/backup", "-full -quiet", 0},
            {"", INT64_MIN, INT64_MAX, 4294967295, "", "", 1},
            {"backup", -1, 0, 0, "relative path", "same name again", 0xFFFFFFFF}};
}

TEST_F(TaskFile, SavedTableIsTheseBytes) {
    SetList(SomeRows());
    inside->SaveTasks();
    EXPECT_EQ(ReadFile(cTable), BytesOf(SomeRows()));
}

TEST_F(TaskFile, EmptyListIsEightZeroBytes) {
    WriteTable(SomeRows());
    inside->SaveTasks();
    EXPECT_EQ(ReadFile(cTable), std::string(8, '\0'));
}

TEST_F(TaskFile, LoadedTableIsTheListInItsOrderWithEveryField) {
    SetList({{"gone", 1, 2, 3, "/gone", "", 0}});
    WriteTable(SomeRows());
    EXPECT_TRUE(inside->LoadTasks());
    EXPECT_EQ(List(), SomeRows());
    EXPECT_TRUE(log.Take().empty());
    EXPECT_FALSE(Flagged());
}

TEST_F(TaskFile, StringsOfEveryByteEmptyAndOfAMebibyteComeBack) {
    const std::string large = EveryByte() + std::string(1 << 20, 'x') + EveryByte();
    const TRows rows = {{EveryByte(), 1, 2, 3, "", large, 0}, {large, 1, 2, 3, EveryByte(), "", 1}};
    SetList(rows);
    inside->SaveTasks();
    EXPECT_EQ(ReadFile(cTable), BytesOf(rows));
    SetList({});
    EXPECT_TRUE(inside->LoadTasks());
    EXPECT_EQ(List(), rows);
}

TEST_F(TaskFile, TenThousandTasksComeBack) {
    TRows rows;
    for (int index = 0; index < 10'000; ++index)
        rows.push_back({"task " + std::to_string(index), index, -index,
                        static_cast<std::uint32_t>(index), "/program",
                        std::string(static_cast<std::size_t>(index % 100), 'p'),
                        static_cast<std::uint32_t>(index % 2)});
    SetList(rows);
    inside->SaveTasks();
    SetList({});
    EXPECT_TRUE(inside->LoadTasks());
    EXPECT_EQ(List(), rows);
}

TEST_F(TaskFile, CountOfZeroDiscardsTheListInMemory) {
    SetList(SomeRows());
    EXPECT_TRUE(inside->LoadTasks());
    EXPECT_EQ(List(), TRows());
}

TEST_F(TaskFile, BytesAfterTheTableAreIgnored) {
    WriteFile(cTable, BytesOf(SomeRows()) + "more");
    EXPECT_TRUE(inside->LoadTasks());
    EXPECT_EQ(List(), SomeRows());
    WriteFile(cTable, std::string(8, '\0') + "more");
    EXPECT_TRUE(inside->LoadTasks());
    EXPECT_EQ(List(), TRows());
}

TEST_F(TaskFile, MissingFileLeavesTheListAndIsNoFailure) {
    SetList(SomeRows());
    std::filesystem::remove(cTable);
    EXPECT_FALSE(inside->LoadTasks());
    EXPECT_EQ(List(), SomeRows());
    EXPECT_TRUE(log.Take().empty());
    EXPECT_FALSE(Flagged());
    EXPECT_FALSE(std::filesystem::exists(cTable));
}

TEST_F(TaskFile, MissingDirectoryLeavesTheListAndSavesNothing) {
    SetList(SomeRows());
    std::filesystem::remove_all("files");
    inside->SaveTasks();
    EXPECT_FALSE(inside->LoadTasks());
    EXPECT_EQ(List(), SomeRows());
    EXPECT_FALSE(std::filesystem::exists("files"));
    EXPECT_TRUE(log.Take().empty());
    EXPECT_FALSE(Flagged());
}

TEST_F(TaskFile, DirectoryInItsPlaceLeavesTheListAndSavesNothing) {
    SetList(SomeRows());
    std::filesystem::remove(cTable);
    std::filesystem::create_directory(cTable);
    inside->SaveTasks();
    EXPECT_FALSE(inside->LoadTasks());
    EXPECT_EQ(List(), SomeRows());
    EXPECT_TRUE(log.Take().empty());
    EXPECT_FALSE(Flagged());
}

// A process that may not write the file does not load it either.
TEST_F(TaskFile, FileThatMayNotBeWrittenIsNotLoadedAndNotSaved) {
    WriteTable(SomeRows());
    ASSERT_EQ(chmod(cTable, 0444), 0);
    CForkedChild child([this] {
        if (!DropCapabilities())
            return 1;
        if (inside->LoadTasks() || !List().empty())
            return 2;
        SetList({{"mine", 1, 2, 3, "", "", 0}});
        inside->SaveTasks();
        return List().size() == 1 && log.Take().empty() && !Flagged() ? 42 : 3;
    });
    EXPECT_EQ(child.Wait(), 42);
    EXPECT_EQ(ReadFile(cTable), BytesOf(SomeRows()));
}

TEST_F(TaskFile, FullDeviceIsReadAsAnEmptyTable) {
    SetList(SomeRows());
    std::filesystem::remove(cTable);
    std::filesystem::create_symlink("/dev/full", cTable);
    EXPECT_TRUE(inside->LoadTasks());
    EXPECT_EQ(List(), TRows());
}

TEST_F(TaskFile, WriteThatFailsEmptiesTheListAndIsLoggedAndFlagged) {
    SetList(SomeRows());
    std::filesystem::remove(cTable);
    std::filesystem::create_symlink("/dev/full", cTable);
    inside->SaveTasks();
    EXPECT_EQ(List(), TRows());
    EXPECT_EQ(log.Take(), std::vector<std::string>({cWritingFailed}));
    EXPECT_TRUE(Flagged());
}

TEST_F(TaskFile, WriteBeyondTheSizeLimitKeepsWhatFitted) {
    std::signal(SIGXFSZ, SIG_IGN);
    const TRows rows = {{"name", 1, 2, 3, "/program", std::string(100'000, 'x'), 0}};
    SetList(rows);
    rlimit limit{};
    getrlimit(RLIMIT_FSIZE, &limit);
    limit.rlim_cur = 70'000;
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    inside->SaveTasks();
    EXPECT_EQ(List(), TRows());
    EXPECT_EQ(log.Take(), std::vector<std::string>({cWritingFailed}));
    EXPECT_EQ(ReadFile(cTable), BytesOf(rows).substr(0, 70'000));
}

// ---- Damaged files ----------------------------------------------------------------------------

TEST_F(TaskFile, CutAtEveryByteItIsReset) {
    const std::string intact = BytesOf(SomeRows());
    for (std::size_t length = 0; length < intact.size(); ++length) {
        SCOPED_TRACE(length);
        SetList(SomeRows());
        WriteFile(cTable, intact.substr(0, length));
        ExpectReset();
    }
    WriteFile(cTable, intact);
    EXPECT_TRUE(inside->LoadTasks());
}

TEST_F(TaskFile, CountBeyondTheTasksIsReset) {
    for (const int byte : {3, 7}) {
        std::string bytes = BytesOf(SomeRows());
        bytes[static_cast<std::size_t>(byte)] = '\x7f';
        WriteFile(cTable, bytes);
        ExpectReset();
    }
    std::string bytes = BytesOf(SomeRows());
    bytes.replace(0, 8, 8, '\xff');
    WriteFile(cTable, bytes);
    ExpectReset();
}

TEST_F(TaskFile, StringBeyondTheFileIsReset) {
    std::string bytes = BytesOf(SomeRows());
    bytes.replace(8, 4, 4, '\xff');
    WriteFile(cTable, bytes);
    ExpectReset();
}

// ---- The system calls, in their order ---------------------------------------------------------

TEST_F(TaskFile, LoadIsTestedOpenedReadOnceAndClosed) {
    WriteTable(SomeRows());
    TakeTableCalls();
    inside->LoadTasks();
    EXPECT_EQ(TakeTableCalls(), TCalls({"stat", "open 2 420", "read", "close"}));
}

TEST_F(TaskFile, SaveIsOpenedWrittenOnceInPlaceAndClosed) {
    SetList(SomeRows());
    TakeTableCalls();
    struct stat before {};
    struct stat after {};
    fstatat(AT_FDCWD, cTable, &before, 0);
    inside->SaveTasks();
    EXPECT_EQ(TakeTableCalls(), TCalls({"open 578 420", "write", "close"}));
    fstatat(AT_FDCWD, cTable, &after, 0);
    EXPECT_EQ(before.st_ino, after.st_ino);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator("files"), {}), 1)
        << "no temporary file is left";
}

TEST_F(TaskFile, NewFileMayBeWrittenByItsOwnerAndReadByAll) {
    std::filesystem::remove(cTable);
    umask(0);
    inside->SaveTasks();
    struct stat status {};
    fstatat(AT_FDCWD, cTable, &status, 0);
    EXPECT_EQ(status.st_mode & 07777, 0644U);
}

TEST_F(TaskFile, MissingFileIsOnlyTestedFor) {
    std::filesystem::remove(cTable);
    TakeTableCalls();
    inside->LoadTasks();
    EXPECT_EQ(TakeTableCalls(), TCalls({"stat"}));
}

TEST_F(TaskFile, FileThatCannotBeOpenedIsLeftAlone) {
    SetList(SomeRows());
    gFailTableCall = [](const std::string& call) { return call.starts_with("open"); };
    EXPECT_FALSE(inside->LoadTasks());
    inside->SaveTasks();
    EXPECT_EQ(List(), SomeRows());
    EXPECT_TRUE(log.Take().empty());
    EXPECT_FALSE(Flagged());
}

TEST_F(TaskFile, ExceptionAtTheOpeningIsAFailedRead) {
    SetList(SomeRows());
    WriteTable(SomeRows());
    gFailTableCall = [](const std::string& call) -> bool {
        if (call == "open 2 420")
            throw std::runtime_error("open");
        return false;
    };
    ExpectReset();
    gFailTableCall = nullptr;
}

TEST_F(TaskFile, ExceptionAtTheOpeningIsAFailedWrite) {
    SetList(SomeRows());
    WriteTable(SomeRows());
    gFailTableCall = [](const std::string& /*call*/) -> bool { throw std::runtime_error("open"); };
    inside->SaveTasks();
    gFailTableCall = nullptr;
    EXPECT_EQ(List(), TRows());
    EXPECT_EQ(log.Take(), std::vector<std::string>({cWritingFailed}));
    EXPECT_TRUE(Flagged());
    EXPECT_EQ(ReadFile(cTable), BytesOf(SomeRows())) << "it was not opened";
}

TEST_F(TaskFile, ReadThatFailsIsADamagedFile) {
    WriteTable(SomeRows());
    gFailTableCall = [](const std::string& call) { return call == "read"; };
    EXPECT_FALSE(inside->LoadTasks());
    gFailTableCall = nullptr;
    EXPECT_EQ(ReadFile(cTable), std::string(8, '\0'));
    EXPECT_EQ(log.Take(), std::vector<std::string>({cReadingFailed}));
    EXPECT_TRUE(Flagged());
}

TEST_F(TaskFile, CloseThatFailsAfterReadingIsADamagedFile) {
    WriteTable(SomeRows());
    int closes = 0;
    gFailTableCall = [&](const std::string& call) { return call == "close" && ++closes == 1; };
    EXPECT_FALSE(inside->LoadTasks());
    gFailTableCall = nullptr;
    EXPECT_EQ(ReadFile(cTable), std::string(8, '\0'));
    EXPECT_EQ(log.Take(), std::vector<std::string>({cReadingFailed}));
}

TEST_F(TaskFile, CloseThatFailsAfterWritingIsAFailedWrite) {
    SetList(SomeRows());
    gFailTableCall = [](const std::string& call) { return call == "close"; };
    inside->SaveTasks();
    gFailTableCall = nullptr;
    EXPECT_EQ(List(), TRows());
    EXPECT_EQ(log.Take(), std::vector<std::string>({cWritingFailed}));
}

TEST_F(TaskFile, ResetThatFailsIsReportedBeforeTheReadingThatFailed) {
    WriteTable(SomeRows());
    TakeTableCalls();
    gFailTableCall = [](const std::string& call) { return call == "read" || call == "write"; };
    EXPECT_FALSE(inside->LoadTasks());
    gFailTableCall = nullptr;
    EXPECT_EQ(log.Take(), std::vector<std::string>({cWritingFailed, cReadingFailed}));
    EXPECT_EQ(TakeTableCalls(),
              TCalls({"stat", "open 2 420", "read", "close", "open 578 420", "write", "close"}))
        << "the file that was read is closed before the reset";
    EXPECT_EQ(ReadFile(cTable), "");
}

// While it exists, records each message, with the sizes of the file and of the list at that moment,
// and each flag.
class COrderOfReports {
public:
    explicit COrderOfReports(std::list<TTask*>* list) {
        order.clear();
        VXC_SetLogSink(
            [](const std::string&, void* tasks) {
                order.push_back("log, file " + std::to_string(ReadFile(cTable).size()) + ", list " +
                                std::to_string(static_cast<std::list<TTask*>*>(tasks)->size()));
            },
            list);
        VXC_SetInformationListener(
            [](const std::string& name, int value, void*) {
                order.push_back(name + ' ' + std::to_string(value));
            },
            nullptr);
    }
    ~COrderOfReports() {
        VXC_SetLogSink(nullptr, nullptr);
        VXC_SetInformationListener(nullptr, nullptr);
    }
    COrderOfReports(const COrderOfReports&) = delete;
    COrderOfReports& operator=(const COrderOfReports&) = delete;

    static inline std::vector<std::string> order;
};

TEST_F(TaskFile, ListIsClearedAndFileResetBeforeTheLogAndTheLogBeforeTheFlag) {
    WriteFile(cTable, "damaged");
    const COrderOfReports reports(inside->TaskList());
    EXPECT_FALSE(inside->LoadTasks());
    EXPECT_EQ(COrderOfReports::order,
              std::vector<std::string>({"log, file 8, list 0", "TasksDeleted 1"}));
}

TEST_F(TaskFile, FailedWriteClearsTheListBeforeTheLogAndTheLogBeforeTheFlag) {
    SetList(SomeRows());
    gFailTableCall = [](const std::string& call) { return call == "write"; };
    const COrderOfReports reports(inside->TaskList());
    inside->SaveTasks();
    gFailTableCall = nullptr;
    EXPECT_EQ(COrderOfReports::order,
              std::vector<std::string>({"log, file 0, list 0", "TasksDeleted 1"}));
}

// A support library may return fewer bytes than requested without an error.
TEST_F(TaskFile, CountIsZeroBeforeItIsRead) {
    SetList(SomeRows());
    WriteTable(SomeRows());
    gDeliverNothing = true;
    EXPECT_TRUE(inside->LoadTasks());
    gDeliverNothing = false;
    EXPECT_EQ(List(), TRows());
    EXPECT_TRUE(log.Take().empty());
    EXPECT_FALSE(Flagged());
}

TEST_F(TaskFile, ForeignExceptionPassesAndClosesTheFile) {
    WriteTable(SomeRows());
    TakeTableCalls();
    gFailTableCall = [](const std::string& call) -> bool {
        if (call == "read" || call == "write")
            throw 42;
        return false;
    };
    EXPECT_THROW(inside->LoadTasks(), int);
    EXPECT_EQ(TakeTableCalls(), TCalls({"stat", "open 2 420", "read", "close"}));
    gFailTableCall = nullptr;
    EXPECT_TRUE(log.Take().empty());
    EXPECT_FALSE(Flagged());
    EXPECT_EQ(ReadFile(cTable), BytesOf(SomeRows()));
}
