/* Manages tasks through the C interface; compiled against the installed package only. */

#include <stdio.h>
#include <string.h>
#include <time.h>
#include <vxsched/vxsched.h>

static bool Count(const vxsched_task* task, void* context) {
    if (strcmp(task->name, "from C") == 0 && task->period == 24 && task->paused)
        ++*(int*)context;
    return true;
}

static int failures = 0;

static void Expect(vxsched_store* store, vxsched_error actual, vxsched_error expected,
                   const char* call) {
    if (actual != expected || (vxsched_message(store)[0] == '\0') != (expected == VXSCHED_DONE)) {
        fprintf(stderr, "%s: returned %d, expected %d: %s\n", call, actual, expected,
                vxsched_message(store));
        ++failures;
    }
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
    vxsched_close(store);
    return failures != 0 || count != 1 || process <= 0;
}
