// Clients that call the exported functions directly, next to a host: no task of theirs is lost.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "AddinLibrary.h"
#include "GuardedTable.h"
#include "HostProgram.h"
#include "Process.h"
#include "TableFile.h"

// A client that creates a task and ends without removing the store mutex.
RUN_AGAIN(CreateOne) {
    const CAddinLibrary library;
    library.Create(arguments.at(0).c_str(), cFar, 24, "/opt/tool", "text");
    _exit(0);
}

TEST(DirectClients, TasksOfOneAfterTheOtherAllArrive) {
    constexpr int cClients = 400;
    WriteTable({});
    CHost host;
    for (int number = 0; number < cClients; ++number) {
        CProgram client(ThisProgramAs("CreateOne", {"task-" + std::to_string(number)}));
        ASSERT_EQ(client.Wait(), 0) << client.Output();
    }
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(host.CountInOutput("restored"), 0U) << host.Output();
    EXPECT_EQ(ReadTable().size(), static_cast<std::size_t>(cClients));
}

// A reader that keeps the file open, such as a backup, hides whether somebody writes it. So the
// guard waits for longer than any save takes, and logs that it guesses.
TEST(DirectClients, DamagedTableThatSomebodyReadsIsRestoredAfterAWhile) {
    WriteTable(cThree);
    CHost host;
    const int reader = open(cTable, O_RDONLY | O_CLOEXEC);
    WriteFile(cTable, BytesOf(cThree).substr(0, 60));
    WaitForTable(cThree);
    EXPECT_TRUE(host.WaitForOutput("cannot make sure that nobody is writing the table"));
    close(reader);
    EXPECT_EQ(host.Stop(), 0);
}
