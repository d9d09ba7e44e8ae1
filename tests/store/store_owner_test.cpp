// As whom the superuser works on a store.

#include "store/StoreOwner.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <vxsched/Error.h>

#include <filesystem>

#include "ForeignStore.h"
#include "Process.h"
#include "TableFile.h"

namespace fs = std::filesystem;
using vxsched::FindForeignOwner;

// The reason of a refusal; "" if there is none.
static std::string WhyRefused(const fs::path& directory = ".") {
    try {
        FindForeignOwner(directory);
        return "";
    } catch (const vxsched::CError& error) {
        EXPECT_EQ(error.Code(), vxsched::EError::cNoAccess);
        return error.what();
    }
}

TEST(StoreOwner, OwnStoreHasNoForeignOwner) {
    WriteTable({});
    EXPECT_FALSE(FindForeignOwner("."));
    EXPECT_FALSE(FindForeignOwner("no such directory"));
}

TEST(StoreOwner, IsWhoeverOwnsAllOfIt) {
    REQUIRE_SUPERUSER();
    WriteTable({});
    GiveStoreTo(cForeignUser);
    ASSERT_TRUE(FindForeignOwner("."));
    EXPECT_EQ(FindForeignOwner("./")->user, cForeignUser);
    EXPECT_FALSE(FindForeignOwner(".")->groups.empty());
    fs::remove_all("files");
    EXPECT_EQ(FindForeignOwner(".")->user, cForeignUser) << "a store that has no table yet";
}

TEST(StoreOwner, LinkOfAnotherUserIsNotFollowed) {
    REQUIRE_SUPERUSER();
    fs::create_directory("own");
    WriteFile("own/secret", "");
    WriteTable({});
    GiveStoreTo(cForeignUser);
    fs::rename(cTable, "table");
    for (const uid_t maker : {uid_t{0}, cForeignUser}) {
        fs::create_symlink(fs::absolute("own/secret"), cTable);
        ASSERT_EQ(lchown(cTable, maker, maker), 0);
        EXPECT_THAT(WhyRefused(), testing::HasSubstr("./files/scheduler.dat is a symbolic link"));
        fs::remove(cTable);
    }
    fs::rename("files", "moved");
    fs::create_directory_symlink(fs::absolute("own"), "files");
    EXPECT_THAT(WhyRefused(), testing::HasSubstr("./files is a symbolic link"));
    fs::create_directory_symlink(".", "store");
    ASSERT_EQ(lchown("store", cForeignUser, cForeignUser), 0);
    for (const fs::path& path :
         {fs::path("store"), fs::path("store/"), fs::path("store/."), fs::path("store//"),
          fs::path("store/own"), fs::path("store/.."), fs::absolute("store/.")})
        EXPECT_THAT(WhyRefused(path), testing::HasSubstr("store is a symbolic link")) << path;
}

TEST(StoreOwner, LinkOfTheSuperusersToADirectoryIsFollowed) {
    REQUIRE_SUPERUSER();
    fs::create_directories("parent/store/files");
    fs::create_directory_symlink("parent", "link");
    fs::create_directory_symlink("parent/store", "direct");
    for (const char* const path : {"link/store", "link/./store/.", "direct", "direct/."})
        EXPECT_EQ(WhyRefused(path), "") << path;
    EXPECT_FALSE(FindForeignOwner("link/no/such"));
    ASSERT_EQ(chown("parent/store", cForeignUser, cForeignUser), 0);
    EXPECT_THAT(WhyRefused("link/store"), testing::HasSubstr("and the store to user 65534"));
}

TEST(StoreOwner, LinkOfTheSuperusersInItsOwnStoreIsFollowed) {
    REQUIRE_SUPERUSER();
    fs::create_directory("files");
    fs::create_symlink(fs::absolute("table"), cTable);
    EXPECT_EQ(WhyRefused(), "") << "to nothing";
    WriteFile("table", "");
    EXPECT_EQ(WhyRefused(), "");
    ASSERT_EQ(chown("table", cForeignUser, cForeignUser), 0);
    EXPECT_THAT(WhyRefused(), testing::HasSubstr("belongs to user 65534"));
}

TEST(StoreOwner, PartsOfTwoOwnersAreRefused) {
    REQUIRE_SUPERUSER();
    WriteTable({});
    GiveStoreTo(cForeignUser);
    for (const char* const path : {"files", cTable}) {
        ASSERT_EQ(chown(path, 0, 0), 0);
        EXPECT_THAT(WhyRefused(), testing::HasSubstr(std::string(path) + " belongs to user 0"));
        ASSERT_EQ(chown(path, cForeignUser, cForeignUser), 0);
    }
    ASSERT_EQ(chown(".", 0, 0), 0);
    EXPECT_THAT(WhyRefused(), testing::HasSubstr("and the store to user 0"));
}

TEST(StoreOwner, PartsThatOthersMayWriteAreRefused) {
    REQUIRE_SUPERUSER();
    WriteTable({});
    for (const uid_t owner : {uid_t{0}, cForeignUser}) {
        GiveStoreTo(owner);
        for (const char* const path : {".", "files", cTable}) {
            struct stat status {};
            ASSERT_EQ(stat(path, &status), 0);
            for (const mode_t others : {0020U, 0002U}) {
                ASSERT_EQ(chmod(path, status.st_mode | others), 0);
                EXPECT_THAT(WhyRefused(), testing::HasSubstr("may be written by others"));
                ASSERT_EQ(chmod(path, status.st_mode), 0);
            }
        }
        EXPECT_EQ(WhyRefused(), "");
    }
}

// Its memory still has what the superuser's environment was.
TEST(StoreOwner, MayNotInspectTheProcessThatHasBecomeIt) {
    REQUIRE_SUPERUSER();
    WriteTable({});
    GiveStoreTo(cForeignUser);
    CForkedChild process([] {
        prctl(PR_SET_DUMPABLE, 1);
        const bool isForeign = vxsched::BecomeForeignOwner(".");
        return isForeign && geteuid() == cForeignUser && prctl(PR_GET_DUMPABLE) != 1 ? 42 : 1;
    });
    EXPECT_EQ(process.Wait(), 42);
}

TEST(StoreOwner, OrdinaryUserIsNotConcerned) {
    REQUIRE_SUPERUSER();
    WriteTable({});
    chmod("files", 0777);
    CForkedChild user([] {
        if (setgid(cForeignUser) != 0 || setuid(cForeignUser) != 0)
            return 1;
        return FindForeignOwner(".") ? 2 : 42;
    });
    EXPECT_EQ(user.Wait(), 42);
}
