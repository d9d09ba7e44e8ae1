// A direct client whose load has set the store mutex free while a change was prepared, and which
// holds the mutex now: the load that makes the change does not end that hold.

#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>
#include <vxsched/Error.h>
#include <vxsched/Store.h>

#include <chrono>
#include <optional>
#include <string>

#include "GuardedTable.h"
#include "Process.h"
#include "StoreSemaphore.h"
#include "TableFile.h"

using namespace std::chrono_literals;

static int Set() {
    return semget(cStoreKey, 1, 0);
}

// Takes the mutex, reads the table, and saves it with the task "theirs" once somebody waits for the
// mutex; or once the table has changed, which it must not.
static int SaveAsADirectClient() {
    semctl(Set(), 0, SETVAL, 1);
    sembuf take{.sem_num = 0, .sem_op = -1, .sem_flg = SEM_UNDO};
    semop(Set(), &take, 1);
    TRows rows = ReadTable();
    WriteFile("held", "");
    const std::string before = ReadFile(cTable);
    WaitUntil([&] { return semctl(Set(), 0, GETNCNT) == 1 || ReadFile(cTable) != before; });
    rows.push_back(Row("theirs"));
    WriteTable(rows);
    return 0;  // the kernel releases the mutex
}

TEST(DirectHolder, IsWaitedForByAChange) {
    WriteTable(cThree);
    MakeStoreMutex();
    std::optional<CForkedChild> client;
    const auto begin = [&] {
        client.emplace(SaveAsADirectClient);
        WaitUntil([] { return access("held", F_OK) == 0; });
    };
    vxsched::CStore({.lockTimeout = 30s, .onBegin = begin}).Pause({"second"});
    ASSERT_TRUE(client);
    EXPECT_EQ(client->Wait(), 0);
    EXPECT_EQ(NamesInTable(), "first second third theirs");
    EXPECT_EQ(ReadTable()[1].paused, 1U);
    EXPECT_EQ(StoreSemaphoreValue(), 1);
}
