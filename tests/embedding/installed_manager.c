/* Manages tasks through the C interface; compiled against the installed package only. */

#include <stdio.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <vxsched/vxsched.h>

static bool Count(const vxsched_task* task, void* context) {
    if (strcmp(task->name, "from C") == 0 && task->period == 24 && task->paused)
        ++*(int*)context;
    return true;
}

static int failures = 0;

static void Check(bool condition, const char* what) {
    if (!condition) {
        fprintf(stderr, "%s\n", what);
        ++failures;
    }
}

/* What the history has of the runs of a task. */
struct runs {
    int count;
    int failed;
    int64_t started;
    char run[64];
};

static bool Note(const vxsched_record* record, void* context) {
    struct runs* runs = context;
    ++runs->count;
    runs->failed += record->failed;
    runs->started = record->started;
    snprintf(runs->run, sizeof runs->run, "%s", record->run);
    return true;
}

static bool Append(const char* bytes, size_t size, void* context) {
    strncat(context, bytes, size);
    return true;
}

static bool Find(const vxsched_task* task, void* context) {
    vxsched_task* wanted = context;
    if (strcmp(task->name, wanted->name) != 0)
        return true;
    wanted->next = task->next;
    wanted->period = task->period;
    wanted->paused = task->paused;
    return false;
}

static void Expect(vxsched_store* store, vxsched_error actual, vxsched_error expected,
                   const char* call) {
    if (actual != expected || (vxsched_message(store)[0] == '\0') != (expected == VXSCHED_DONE)) {
        fprintf(stderr, "%s: returned %d, expected %d: %s\n", call, actual, expected,
                vxsched_message(store));
        ++failures;
    }
}

/* A job with a calendar, which is edited, run and waited for. */
static void ManageAJob(vxsched_store* store) {
    const char* const job[] = {"--cron", "30 2 * * *", "--zone=UTC", "--success", "0,3",
                               "--",     "/bin/sh",    "-c",         "echo said; exit 3", NULL};
    const char* const wrong[] = {"--crom", "30 2 * * *", "--", "/bin/sh", NULL};
    const char* const later[] = {"--cron", "45 2 * * *", NULL};
    const vxsched_edit_fields edit = {.name = "renamed", .job = later};
    const uint32_t hours = 12;
    const vxsched_edit_fields period = {.period = &hours};
    vxsched_task found = {.name = "renamed"};
    struct runs runs = {0, 0, 0, ""};
    char output[100] = "";
    pid_t process = 0;
    int status = 0;
    Expect(store, vxsched_create_job(store, "job", 0, 0, wrong, false), VXSCHED_REFUSED, "job");
    Expect(store, vxsched_create_job(store, "job", 0, 0, job, false), VXSCHED_DONE, "create_job");
    Expect(store, vxsched_edit(store, "job", &edit), VXSCHED_DONE, "edit");
    Expect(store, vxsched_edit(store, "job", &edit), VXSCHED_NOT_FOUND, "edit the former name");
    Expect(store, vxsched_edit(store, "renamed", &period), VXSCHED_REFUSED, "edit the period");
    Expect(store, vxsched_list(store, Find, &found), VXSCHED_DONE, "list");
    Check(found.period == 1 && found.next % 86400 == (2 * 60 + 45) * 60, "the edited calendar");
    Expect(store, vxsched_run_and_wait(store, "renamed", false, &process, &status), VXSCHED_DONE,
           "run_and_wait");
    Check(process > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 3, "the wait status");
    Expect(store, vxsched_history(store, "renamed", Note, &runs), VXSCHED_DONE, "history");
    Check(runs.count == 1 && runs.failed == 0 && runs.run[0] != '\0', "the record");
    Check(runs.started / 1000 >= time(NULL) - 60 && runs.started / 1000 <= time(NULL), "its time");
    Expect(store, vxsched_output(store, "renamed", 1, Append, output), VXSCHED_DONE, "output");
    Check(strcmp(output, "said\n") == 0, output);
    Expect(store, vxsched_output(store, "renamed", 2, Append, output), VXSCHED_NOT_FOUND,
           "output of another run");
    Expect(store, vxsched_remove(store, "renamed"), VXSCHED_DONE, "remove the job");
}

/* Each of the checks that can be skipped. */
static void Force(vxsched_store* store) {
    const int64_t later = time(NULL) + 3600;
    const vxsched_task tasks[] = {
        {"missing-program", later, 0, 24, "/no/such", "", false},
        {"not-executable", later, 0, 24, "/etc/passwd", "", false},
        {"relative-path", later, 0, 24, "bin/ls", "", false},
        {"wrapped-period", later, 0, 1193047, "/bin/ls", "", false},
    };
    for (size_t index = 0; index < sizeof tasks / sizeof tasks[0]; ++index) {
        const vxsched_task* const task = &tasks[index];
        vxsched_set_forced(store, "past-due");
        Expect(store, vxsched_create(store, task, false), VXSCHED_REFUSED, task->name);
        char checks[100];
        snprintf(checks, sizeof checks, "missing-program %s", task->name);
        Expect(store, vxsched_set_forced(store, checks), VXSCHED_DONE, "set_forced");
        Expect(store, vxsched_create(store, task, false), VXSCHED_DONE, task->name);
        Expect(store, vxsched_remove(store, task->name), VXSCHED_DONE, "remove");
    }
    Expect(store, vxsched_set_forced(store, "no-such-check"), VXSCHED_REFUSED, "set_forced");
    Expect(store, vxsched_set_forced(store, NULL), VXSCHED_DONE, "set_forced");
    /* The due time of a paused task that runs once may be one of the past, if that is forced. */
    const int64_t past = time(NULL) - 3600;
    const vxsched_task once = {"past-due", later, 0, 0, "/bin/ls", "", false};
    const vxsched_edit_fields edit = {.next = &past};
    Expect(store, vxsched_create(store, &once, false), VXSCHED_DONE, "create");
    Expect(store, vxsched_pause(store, "past-due"), VXSCHED_DONE, "pause");
    Expect(store, vxsched_edit(store, "past-due", &edit), VXSCHED_REFUSED, "edit to the past");
    vxsched_set_forced(store, "past-due");
    Expect(store, vxsched_edit(store, "past-due", &edit), VXSCHED_DONE, "edit to the past");
    vxsched_set_forced(store, "");
    Expect(store, vxsched_resume(store, "past-due"), VXSCHED_REFUSED, "resume");
    vxsched_set_forced(store, "past-due");
    Expect(store, vxsched_resume(store, "past-due"), VXSCHED_DONE, "resume, which removes it");
    Expect(store, vxsched_resume(store, "past-due"), VXSCHED_NOT_FOUND, "resume again");
    vxsched_set_forced(store, NULL);
}

static void ChangeSeveral(vxsched_store* store) {
    const vxsched_task one = {"one", time(NULL) + 3600, 0, 12, "/bin/ls", "x", false};
    vxsched_task found = {.name = "one"};
    int count = 0;
    Expect(store, vxsched_commit(store), VXSCHED_REFUSED, "commit without a begin");
    vxsched_begin(store);
    vxsched_create(store, &one, false);
    vxsched_pause(store, "one");
    Expect(store, vxsched_pause(store, "two"), VXSCHED_DONE, "note a change");
    Expect(store, vxsched_commit(store), VXSCHED_NOT_FOUND, "commit");
    vxsched_cancel(store);
    vxsched_list(store, Find, &found);
    Check(found.next == 0, "nothing was changed");
    vxsched_begin(store);
    vxsched_create(store, &one, false);
    vxsched_set_period(store, "one", 48);
    vxsched_pause(store, "one");
    Expect(store, vxsched_commit(store), VXSCHED_DONE, "commit");
    vxsched_list(store, Find, &found);
    Check(found.paused && found.period == 48, "all was changed");
    Expect(store, vxsched_remove(store, "one"), VXSCHED_DONE, "remove, at once");
    vxsched_list(store, Count, &count);
    Check(count == 0, "the task is gone");
}

int main(void) {
    vxsched_store* store = vxsched_open(".");
    const vxsched_task task = {"from C", time(NULL) + 3600, 0, 12, "/bin/true", "x", false};
    int count = 0;
    pid_t process = 0;
    vxsched_set_lock_timeout(store, 5000);
    Expect(store, vxsched_create(store, &task, false), VXSCHED_DONE, "create");
    Expect(store, vxsched_create(store, &task, false), VXSCHED_REFUSED, "create again");
    Expect(store, vxsched_set_period(store, "from C", 24), VXSCHED_DONE, "set_period");
    Expect(store, vxsched_pause(store, "from C"), VXSCHED_DONE, "pause");
    Expect(store, vxsched_list(store, Count, &count), VXSCHED_DONE, "list");
    Expect(store, vxsched_run(store, "from C", false, &process), VXSCHED_DONE, "run");
    Expect(store, vxsched_resume(store, "from C"), VXSCHED_DONE, "resume");
    Expect(store, vxsched_remove(store, "from C"), VXSCHED_DONE, "remove");
    Expect(store, vxsched_remove(store, "from C"), VXSCHED_NOT_FOUND, "remove again");
    Expect(store, vxsched_wake(store), VXSCHED_NO_SCHEDULER, "wake");
    ManageAJob(store);
    Force(store);
    ChangeSeveral(store);
    vxsched_close(store);
    return failures != 0 || count != 1 || process <= 0;
}
