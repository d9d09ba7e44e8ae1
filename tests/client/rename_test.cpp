// An edit that gives a task another name: what stays, and what is refused.

#include <gtest/gtest.h>
#include <vxsched/Changes.h>
#include <vxsched/Error.h>
#include <vxsched/Store.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>

#include "ClientError.h"
#include "ClientStore.h"
#include "Process.h"
#include "Recorder.h"
#include "TableFile.h"

using namespace std::chrono_literals;
using namespace vxsched;
namespace fs = std::filesystem;

namespace {

class Rename : public ClientStore {
protected:
    static TEdit To(const std::string& name) {
        TEdit edit;
        edit.name = name;
        return edit;
    }

    static TRow Row(const std::string& name) {
        return {name, Seconds(In(1h)), 77, 24, cRecorder, "a parameter", 0};
    }

    // A dry run.
    static void Check(const CStore& tasks, const std::string& name, const TEdit& edit) {
        CChanges changes(tasks.Options());
        changes.Edit(name, edit);
        changes.Check();
    }

    const CStore evenIfDue{{.lockTimeout = 60s, .evenIfDue = true}};
};

}  // namespace

TEST_F(Rename, KeepsAllElseAndThePosition) {
    const TRow first = Row("first");
    TRow task = Row("a task");
    const TRow last = Row("last");
    for (const std::uint32_t paused : {0U, 1U}) {
        task.paused = paused;
        WriteTable({first, task, last});
        const TTaskEntry made = store.Edit("a task", To("renamed"));
        TRow renamed = task;
        renamed.name = "renamed";
        EXPECT_EQ(::ReadTable(), (TRows{first, renamed, last}));
        EXPECT_EQ(made, store.Read().tasks[1]);
        EXPECT_EQ(ReadFile("files/scheduler.dat.before"), BytesOf({first, task, last}));
    }
}

// The next command decides about it.
TEST_F(Rename, KeepsThePastDueTimeOfAPausedTask) {
    for (const std::uint32_t period : {0U, 24U}) {
        TRow task = Row("a task");
        task.next = Seconds(In(-30h));
        task.period = period;
        task.paused = 1;
        WriteTable({task});
        store.Edit("a task", To("renamed"));
        task.name = "renamed";
        EXPECT_EQ(::ReadTable(), TRows{task});
    }
}

// What the edit does not change is no reason to refuse it.
TEST_F(Rename, OfATaskThatCreateWouldRefuseIsMade) {
    TRow task = Row("a task");
    task.program = "/no/such/program";
    task.period = 268435457;
    WriteTable({task});
    store.Edit("a task", To("renamed"));
    EXPECT_EQ(NamesInTable(), "renamed");
}

TEST_F(Rename, IsMadeInOneStepWithOtherEdits) {
    WriteTable({Row("a task")});
    TEdit edit = To("renamed");
    edit.due = In(2h);
    edit.period = 48;
    edit.program = "/usr/bin/free";
    edit.parameter = "other";
    store.Edit("a task", edit);
    const TRow row = ::ReadTable().at(0);
    EXPECT_EQ(row, (TRow{"renamed", Seconds(*edit.due), 77, 48, row.program,
                         "--task renamed -- /usr/bin/free other", 0}));
    EXPECT_EQ(row.program, RUNNER_PROGRAM);
    store.Edit("renamed", To("again"));
    EXPECT_EQ(::ReadTable().at(0).program, row.program);
    EXPECT_EQ(::ReadTable().at(0).parameters, "--task again -- /usr/bin/free other");
}

TEST_F(Rename, ToANameThatIsTakenOrInvalidIsRefused) {
    WriteTable({Row("a task"), Row("taken")});
    ExpectKept([&] {
        for (const std::string& name :
             {std::string("taken"), std::string(), std::string("a\0b", 3)}) {
            ErrorOf(EError::cRefused, [&] { store.Edit("a task", To(name)); });
            ErrorOf(EError::cRefused, [&] { Check(store, "a task", To(name)); });
            TEdit edit = To(name);
            edit.period = 48;
            ErrorOf(EError::cRefused, [&] { store.Edit("a task", edit); });
        }
        const std::string message =
            ErrorOf(EError::cNotFound, [&] { store.Edit("a tsak", To("renamed")); });
        EXPECT_NE(message.find("did you mean \"a task\"?"), std::string::npos) << message;
    });
}

TEST_F(Rename, ToTheOwnNameIsNoChange) {
    TRow task = Row("a task");
    task.next = Seconds(In(-1h));  // due, for which a change waits
    WriteTable({task});
    ExpectKept([&] { EXPECT_EQ(store.Edit("a task", To("a task")).name, "a task"); });
    EXPECT_FALSE(fs::exists("files/scheduler.dat.before"));
    ErrorOf(EError::cNotFound, [&] { store.Edit("nobody", To("nobody")); });
    WriteTable({Row("a task")});
    TEdit edit = To("a task");
    edit.period = 48;
    store.Edit("a task", edit);
    EXPECT_EQ(::ReadTable().at(0).period, 48U);
}

TEST_F(Rename, OfADueTaskIsRefusedWithoutAHostUnlessItGetsANewDueTime) {
    TRow due = Row("due");
    due.next = Seconds(In(-1s));
    WriteTable({due, Row("other")});
    ExpectKept([&] {
        ErrorOf(EError::cNoScheduler, [&] { store.Edit("due", To("renamed")); });
        ErrorOf(EError::cNoScheduler, [&] { store.Edit("other", To("renamed")); });
        const std::string message =
            ErrorOf(EError::cRefused, [&] { evenIfDue.Edit("due", To("renamed")); });
        EXPECT_NE(message.find("is due itself"), std::string::npos) << message;
        EXPECT_EQ(ErrorOf(EError::cRefused, [&] { Check(evenIfDue, "due", To("renamed")); }),
                  message)
            << "a dry run";
    });
    evenIfDue.Edit("other", To("another"));
    TEdit later = To("later");
    later.due = In(1h);
    evenIfDue.Edit("due", later);
    EXPECT_EQ(NamesInTable(), "later another");
}

// Names are unique in a table that the programs have made.
TEST_F(Rename, OfTwoTasksOfOneNameTakesTheFirst) {
    TRow second = Row("twice");
    second.parameters = "second";
    WriteTable({Row("twice"), second});
    store.Edit("twice", To("renamed"));
    EXPECT_EQ(NamesInTable(), "renamed twice");
    EXPECT_EQ(::ReadTable()[1], second);
}
