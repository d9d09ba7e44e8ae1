// The interposed sleep(): only the pause after a launch is handed on, and every other sleep is libc's.

#include "interpose/Launch.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

static int gPauses = 0;
static int gSpawnResult = 0;

static unsigned int CountPause(unsigned int /*seconds*/) {
    ++gPauses;
    return 0;
}

static int Spawn(pid_t* /*process*/, const char* /*path*/,
                 const posix_spawn_file_actions_t* /*actions*/,
                 const posix_spawnattr_t* /*attributes*/, char* const* /*arguments*/,
                 char* const* /*environment*/) {
    return gSpawnResult;
}

class InterposedSleep : public testing::Test {
protected:
    InterposedSleep() {
        gPauses = 0;
        gSpawnResult = 0;
        SetLaunchHandlers({.spawn = Spawn, .wait = nullptr, .sleep = CountPause});
    }
    static void Launch() {
        pid_t process = 0;
        char* none[] = {nullptr};
        EXPECT_EQ(posix_spawn(&process, "/program", nullptr, nullptr, none, none), gSpawnResult);
    }
};

TEST_F(InterposedSleep, IsThePauseOnlyRightAfterALaunch) {
    sleep(0);
    EXPECT_EQ(gPauses, 0);
    Launch();
    sleep(0);
    EXPECT_EQ(gPauses, 1);
    sleep(0);
    EXPECT_EQ(gPauses, 1);
}

TEST_F(InterposedSleep, AfterALaunchThatFailedIsLibcs) {
    gSpawnResult = EAGAIN;
    Launch();
    sleep(0);
    EXPECT_EQ(gPauses, 0);
}

TEST_F(InterposedSleep, OfAnotherThreadIsLibcs) {
    Launch();
    std::thread([] { sleep(0); }).join();
    EXPECT_EQ(gPauses, 0);
    sleep(0);
    EXPECT_EQ(gPauses, 1);
}
