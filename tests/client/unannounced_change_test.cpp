// Changes that the scheduling process cannot be notified of: one that could not be announced is not
// made, and one that is made is reported as made.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vxsched/Error.h>
#include <vxsched/Store.h>
#include <vxsched/vxsched.h>

#include <string>
#include <vector>

#include "ClientError.h"
#include "ClientStore.h"
#include "ForeignStore.h"
#include "GuardedTable.h"
#include "Process.h"
#include "Recorder.h"
#include "StoreSemaphore.h"
#include "TableFile.h"
#include "Tool.h"

using namespace vxsched;
using testing::ElementsAre;
using testing::HasSubstr;

// Has every attempt to open the event of that key fail, as where the system has no semaphores left:
// the set is too small for an event.
static int TakeKey(key_t key) {
    return semget(key, 1, IPC_CREAT | 0600);
}

// Makes an event that only so many more may open: it has nearly as many openers as a semaphore can
// count. Returns its set.
static int MakeEventFor(int openers, key_t key) {
    constexpr int cMostOpeners = 32767;
    constexpr int cOpeners = 1;
    union {
        int val;
    } value{.val = cMostOpeners - openers};
    const int set = semget(key, 3, IPC_CREAT | 0660);
    semctl(set, cOpeners, SETVAL, value);
    return set;
}

// A scheduling process as clients see it, between two ticks, that cannot be woken.
class CDeafScheduler {
public:
    CDeafScheduler() : child(Run) { WaitUntil(WorkerIsIdle); }

private:
    static int Run() {
        const int lock = open("files/vxschedd.lock", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        const int program = open(HOST_PROGRAM, O_RDONLY | O_CLOEXEC);
        // A process that holds the lock and maps the program is the host.
        if (flock(lock, LOCK_EX) != 0 ||
            mmap(nullptr, 1, PROT_READ, MAP_PRIVATE, program, 0) == MAP_FAILED)
            return 1;
        sembuf take{.sem_num = 0, .sem_op = -1, .sem_flg = 0};
        return semop(MakeEventFor(0, cStopKey), &take, 1);
    }

    CForkedChild child;
};

// A store whose warnings are kept, and which leaves no semaphores.
class UnannouncedChange : public ClientStore {
protected:
    ~UnannouncedChange() override {
        for (const key_t key : {cStoreKey, cTaskChangedKey, cStopKey})
            semctl(semget(key, 0, 0), 0, IPC_RMID);
    }

    TStoreOptions Warned() {
        TStoreOptions options;
        options.onWarning = [this](const std::string& warning) { warnings.push_back(warning); };
        return options;
    }

    std::vector<std::string> warnings;
};

TEST_F(UnannouncedChange, ImportThatCouldNotBeAnnouncedIsNotMade) {
    WriteTable({Row("a")});
    TakeKey(cTaskChangedKey);
    ExpectKept([&] {
        EXPECT_THAT(ErrorOf(EError::cFailed, [&] { store.ReplaceAll({}); }),
                    HasSubstr("nothing was changed"));
    });
    const TToolRun run = RunTool({"import", "--replace"}, {}, R"({"version": 1, "tasks": []})");
    EXPECT_EQ(run.status, 1) << run.error;
    EXPECT_EQ(NamesInTable(), "a");
}

// The event is lost between its opening and the replacement.
TEST_F(UnannouncedChange, ReplacementWhoseAnnouncementFailsIsMadeAndWarnsOfIt) {
    WriteTable({Row("a")});
    const auto loseTheEvent = [](const std::string&) {
        semctl(semget(cTaskChangedKey, 0, 0), 0, IPC_RMID);
        TakeKey(cTaskChangedKey);
    };
    CStore(Warned()).ReplaceAll({}, loseTheEvent);
    EXPECT_EQ(NamesInTable(), "");
    EXPECT_THAT(warnings, ElementsAre(HasSubstr("could not be announced")));
}

TEST_F(UnannouncedChange, ReplacementThatWakesNobodyIsMadeAndWarnsOfIt) {
    WriteTable({Row("a")});
    const CDeafScheduler scheduler;
    CStore(Warned()).ReplaceAll({});
    EXPECT_EQ(NamesInTable(), "");
    EXPECT_THAT(warnings, ElementsAre(HasSubstr("could not be woken")));
    const TToolRun run = RunTool({"import", "--replace"}, {}, R"({"version": 1, "tasks": []})");
    EXPECT_EQ(run.status, 0) << run.error;
    EXPECT_THAT(run.error, HasSubstr("could not be woken"));
}

TEST_F(UnannouncedChange, ChangeThatWakesNobodyIsMadeAndWarnsOfIt) {
    TRow paused = Row("a");
    paused.paused = 1;
    WriteTable({paused});
    const CDeafScheduler scheduler;
    CStore(Warned()).Edit("a", {.parameter = "another"});
    EXPECT_EQ(::ReadTable().at(0).parameters, "another");
    EXPECT_THAT(warnings, ElementsAre(HasSubstr("could not be woken")));
}

// The add-in has opened the event, and this process may not open it for the announcement.
TEST_F(UnannouncedChange, ThatCouldNotBeAnnouncedBeforeItsSaveIsNotMade) {
    TRow paused = Row("paused");
    paused.paused = 1;
    const auto expectRefused = [&](const std::function<void()>& change) {
        WriteTable({Row("a"), paused});
        semctl(semget(cTaskChangedKey, 0, 0), 0, IPC_RMID);
        MakeEventFor(1, cTaskChangedKey);
        ExpectKept([&] {
            EXPECT_THAT(ErrorOf(EError::cFailed, change),
                        HasSubstr("was not made: cannot signal the event"));
        });
    };
    expectRefused([&] { store.Create(Task("b"), false); });
    expectRefused([&] { store.Remove({"a"}); });
    expectRefused([&] { store.Pause({"a"}); });
    expectRefused([&] { store.Edit("a", {.parameter = "another"}); });
    expectRefused([&] { store.Edit("paused", {.parameter = "another"}); });
    EXPECT_THAT(warnings, ElementsAre());
}

// The program is launched by then.
TEST_F(UnannouncedChange, LaunchWhoseAnnouncementFailsIsReportedAsMade) {
    WriteTable({{"a", cFar, 0, 24, cRecorder, "a parameter", 0}});
    MakeEventFor(1, cTaskChangedKey);  // the add-in's
    const TRun run = CStore(Warned()).Run("a", false, true);
    EXPECT_NE(run.process, 0);
    EXPECT_EQ(run.status, 0);
    EXPECT_THAT(warnings, ElementsAre(HasSubstr("the launch could not be announced")));
}

TEST_F(UnannouncedChange, WarningIsTheMessageOfACallForC) {
    WriteTable({Row("a")});
    const CDeafScheduler scheduler;
    vxsched_store* const forC = vxsched_open(".");
    EXPECT_EQ(vxsched_pause(forC, "a"), VXSCHED_DONE);
    EXPECT_THAT(vxsched_message(forC), HasSubstr("could not be woken"));
    vxsched_close(forC);
}

// Also a refusal is checked against what has been done.
TEST_F(UnannouncedChange, EditOfAPausedTaskThatMayNotBeAnnouncedIsNotMade) {
    REQUIRE_SUPERUSER();
    TRow paused = Row("a");
    paused.paused = 1;
    WriteTable({paused});
    GiveStoreTo(cForeignUser);
    ASSERT_NE(semget(cTaskChangedKey, 3, IPC_CREAT | 0600), -1);
    ExpectKept([&] {
        EXPECT_THAT(ErrorOf(EError::cNoAccess, [&] { store.Edit("a", {.parameter = "another"}); }),
                    HasSubstr("was not made: cannot open the event"));
    });
}
