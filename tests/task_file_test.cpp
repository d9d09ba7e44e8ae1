// The task file: what is written, what is read, and what a file that cannot be read to its end
// leads to.

#include <gtest/gtest.h>

#include "AddinLibrary.h"
#include "FakeSystem.h"
#include "LogCapture.h"
#include "StoreSemaphore.h"
#include "TableFile.h"

TEST(TaskFile, LoadWithoutFileButWithFolderCreatesTableOfZeroTasks) {
    CFakeSystem system;
    WriteTable({});
    std::remove(cTable);
    CAddinLibrary library;
    EXPECT_EQ(ReadTable(), TRows());
    EXPECT_EQ(StoreSemaphoreValue(), 1);
}

TEST(TaskFile, CreatedTaskIsWrittenFieldByField) {
    CFakeSystem system(1000);
    WriteTable({});
    CAddinLibrary library;
    library.Create("name", 5000, 24, "/bin/program", "the parameter text");
    EXPECT_EQ(ReadTable(), TRows({{"name", 5000, 0, 24, "/bin/program", "the parameter text", 0}}));
    system.now = 5000;
    library.Tick();
    EXPECT_EQ(system.StartedPaths(), "/bin/program");
    library.Unload();
    EXPECT_FALSE(CAddinLibrary::IsMapped());
    EXPECT_EQ(CountSemaphoreSets(), 0);
}
