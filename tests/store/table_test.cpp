// Reading a table: the tasks, the problems with their offsets, and that reading has no effect on
// the store.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <vxsched/Error.h>
#include <vxsched/Table.h>
#include "store/TableFile.h"

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "ClientError.h"
#include "Process.h"
#include "StoreSemaphore.h"
#include "TableFile.h"

using namespace std::chrono_literals;
using namespace vxsched;

static constexpr std::int64_t cNow = 1'000'000;

static TTime At(std::int64_t seconds) {
    return TTime(std::chrono::seconds(seconds));
}

static TTable Decode(const std::string& bytes) {
    return DecodeTable(bytes, At(cNow));
}

static std::string DamageOf(const std::string& bytes) {
    return ErrorOf(EError::cDamaged, [&] { Decode(bytes); });
}

TEST(ClientTable, TasksAreReadInTheirOrderWithEveryField) {
    const TTable table = Decode(BytesOf(
        {{"backup", cNow + 5, 7, 24, "/opt/tool", "-full -quiet", 0}, {"", -1, 0, 0, "", "", 1}}));
    const std::vector<TTaskEntry> wanted = {
        {"backup", At(cNow + 5), At(7), 24, "/opt/tool", "-full -quiet", false},
        {"", At(-1), At(0), 0, "", "", true}};
    EXPECT_EQ(table.tasks, wanted);
    EXPECT_TRUE(table.problems.empty());
    EXPECT_TRUE(table.IsSafeToLoad());
}

TEST(ClientTable, CutAtAnyByteItIsDamagedAndTheOffsetIsReported) {
    const std::string complete = BytesOf(
        {{"one", cNow, 0, 24, "/opt/tool", "parameter", 0}, {"two", cNow, 0, 1, "/p", "", 1}});
    for (std::size_t length = 0; length < complete.size(); ++length) {
        const std::string message = DamageOf(complete.substr(0, length));
        EXPECT_NE(message.find("the table is damaged at offset "), std::string::npos) << message;
    }
    EXPECT_EQ(Decode(complete).tasks.size(), 2U);
    EXPECT_EQ(DamageOf(complete.substr(0, 5)),
              "the table is damaged at offset 0: the file ends in the number of tasks");
    EXPECT_EQ(DamageOf(complete.substr(0, complete.size() - 1)),
              "the table is damaged at offset " + std::to_string(complete.size() - 4) +
                  ": the file ends in the pause flag of task 2");
}

TEST(ClientTable, CountBeyondTheFileIsDamageBeforeAnythingIsRead) {
    std::string bytes = BytesOf({{"one", cNow, 0, 24, "/opt/tool", "parameter", 0}});
    bytes.replace(0, 8, 8, '\xff');
    EXPECT_NE(DamageOf(bytes).find("offset 0: its count is 18446744073709551615 tasks"),
              std::string::npos);
}

TEST(ClientTable, StringBeyondTheFileIsDamageAtItsLength) {
    std::string bytes = BytesOf({{"one", cNow, 0, 24, "/opt/tool", "parameter", 0}});
    bytes.replace(8, 4, 4, '\xff');
    EXPECT_NE(DamageOf(bytes).find("offset 8: the length of the name of task 1 is 4294967295, but"),
              std::string::npos);
}

static std::vector<std::pair<TProblem::EKind, std::size_t>> ProblemsOf(const TTable& table) {
    std::vector<std::pair<TProblem::EKind, std::size_t>> found;
    for (const TProblem& problem : table.problems)
        found.emplace_back(problem.kind, problem.offset);
    return found;
}

using TProblems = std::vector<std::pair<TProblem::EKind, std::size_t>>;

TEST(ClientTable, UnusualValuesAreReportedWithTheirOffsetAndHarmless) {
    const TRow one = {"one", cNow, 0, 24, "/opt/tool", "parameter", 0};
    const std::size_t second = BytesOf({one}).size();
    TTable table = Decode(BytesOf({one, one}) + "more");
    EXPECT_EQ(ProblemsOf(table), TProblems({{TProblem::cUnusual, second},
                                            {TProblem::cUnusual, BytesOf({one, one}).size()}}));
    EXPECT_TRUE(table.IsSafeToLoad());
    TRow flagged = one;
    flagged.paused = 7;
    table = Decode(BytesOf({flagged}));
    EXPECT_EQ(ProblemsOf(table), TProblems({{TProblem::cUnusual, second - 4}}));
    EXPECT_TRUE(table.tasks[0].paused);
    TRow zero = one;
    zero.name = std::string("a\0b", 3);
    EXPECT_EQ(ProblemsOf(Decode(BytesOf({zero}))), TProblems({{TProblem::cUnusual, 8}}));
}

TEST(ClientTable, StepOfZeroInThePastWouldHangALoad) {
    const TRow endless = {"one", cNow - 1, 0, 268435456, "/opt/tool", "", 0};
    const TTable table = Decode(BytesOf({endless}));
    EXPECT_EQ(ProblemsOf(table), TProblems({{TProblem::cEndless, 8}}));
    EXPECT_FALSE(table.IsSafeToLoad());
    TRow later = endless;
    later.next = cNow;
    EXPECT_TRUE(Decode(BytesOf({later})).problems.empty());
}

TEST(ClientTable, DueTimeTooFarBackWouldKeepALoadBusy) {
    const TRow slow = {"one", INT64_MIN, 0, 1, "/opt/tool", "", 0};
    EXPECT_EQ(ProblemsOf(Decode(BytesOf({slow}))), TProblems({{TProblem::cSlow, 8}}));
    const TRow quick = {"one", cNow - 3600LL * 1000, 0, 1, "/opt/tool", "", 0};
    EXPECT_TRUE(Decode(BytesOf({quick})).problems.empty());
    // A task that runs once is not caught up.
    const TRow once = {"one", INT64_MIN, 0, 0, "/opt/tool", "", 0};
    EXPECT_TRUE(Decode(BytesOf({once})).problems.empty());
}

// ---- Reading has no effect --------------------------------------------------------------------

TEST(ClientTable, ReadingMakesNothing) {
    EXPECT_TRUE(ReadTable(".", 0ms).tasks.empty()) << "a missing file is an empty table";
    EXPECT_FALSE(std::filesystem::exists("files"));
    EXPECT_EQ(CountSemaphoreSets(), 0);
    const TRows rows = {{"past", 5, 0, 0, "/opt/tool", "", 0}};
    WriteTable(rows);
    const auto before = std::filesystem::last_write_time(cTable);
    EXPECT_EQ(ReadTable(".", 0ms).tasks.size(), 1U) << "due tasks stay";
    EXPECT_EQ(ReadTable(), rows);
    EXPECT_EQ(std::filesystem::last_write_time(cTable), before);
    EXPECT_EQ(CountSemaphoreSets(), 0);
}

TEST(ClientTable, DamagedFileStaysAsItIs) {
    WriteTable({});
    WriteFile(cTable, "damaged");
    ErrorOf(EError::cDamaged, [] { vxsched::ReadTable(".", 0ms); });
    EXPECT_EQ(ReadFile(cTable), "damaged");
}

// A sparse file takes no disk space, but reading it would exhaust the memory.
TEST(ClientTable, FileLargerThanAnyTableIsAnErrorBeforeItIsRead) {
    WriteTable({});
    std::filesystem::resize_file(cTable, 1ULL << 42);
    EXPECT_EQ(
        ErrorOf(EError::cFailed, [] { vxsched::ReadTable(".", 0ms); }),
        "cannot read ./files/scheduler.dat: it has 4398046511104 bytes, and no table has more "
        "than 1073741824; replace it by a valid table");
}

TEST(ClientTable, FileOfWhichNothingMayBeReadIsAnErrorWithItsName) {
    WriteTable({});
    std::filesystem::permissions(cTable, std::filesystem::perms::none);
    CForkedChild child([] {
        if (!DropCapabilities())
            return 1;
        const std::string message =
            ErrorOf(EError::cNoAccess, [] { vxsched::ReadTable(".", 0ms); });
        EXPECT_EQ(
            message,
            "cannot read ./files/scheduler.dat: Permission denied; run as the user, or in the "
            "group, of the scheduling process");
        return testing::Test::HasFailure() ? 2 : 42;
    });
    EXPECT_EQ(child.Wait(), 42);
    std::filesystem::remove(cTable);
    std::filesystem::create_directory(cTable);
    EXPECT_EQ(ErrorOf(EError::cFailed, [] { vxsched::ReadTable(".", 0ms); }),
              "cannot read ./files/scheduler.dat: Is a directory");
}

// Without the check a read would wait for the other end of a FIFO, with the store mutex held.
TEST(ClientTable, WhatIsNoFileIsRefused) {
    std::filesystem::create_directory("files");
    const auto refusal = [] { return ErrorOf(EError::cFailed, [] { ReadBytes(TableFile(".")); }); };
    const std::string message =
        "cannot read ./files/scheduler.dat: it is not a regular file; move it away, and copy a "
        "backup there if there is one";
    ASSERT_EQ(mkfifo(cTable, 0644), 0);
    EXPECT_EQ(refusal(), message);
    std::filesystem::remove(cTable);
    std::filesystem::create_symlink("/dev/zero", cTable);
    EXPECT_EQ(refusal(), message);
    std::filesystem::remove(cTable);
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = "files/scheduler.dat"};
    ASSERT_EQ(bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(refusal(), message);
    close(listener);
    std::filesystem::remove(cTable);
    std::filesystem::create_symlink("/no/disk/table", cTable);
    EXPECT_THAT(refusal(), testing::StartsWith("./files/scheduler.dat is unavailable"));
}
