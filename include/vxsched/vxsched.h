/* The client library for C, and for whatever calls C: the tasks of one directory, read without any
   effect and changed without harming the scheduling process or other clients. CStore.h says how.

   Names and all other texts are zero-terminated bytes. Times are seconds since the epoch, periods
   whole hours (0 runs once). Every function that can fail returns a vxsched_error; the text that goes
   with it is vxsched_message(). A store is for one thread at a time. */
#ifndef VXSCHED_H
#define VXSCHED_H

#include <stdbool.h>
#include <stdint.h>
#include <sys/types.h>

#include <vxsched/Public.h>

#ifdef __cplusplus
extern "C" {
#endif

/* NOLINTBEGIN(modernize-use-using): C has no other way. */
typedef enum vxsched_error {
    VXSCHED_DONE = 0,
    VXSCHED_REFUSED = 1,      /* something speaks against the change; nothing was changed */
    VXSCHED_NOT_FOUND = 3,    /* there is no task of that name */
    VXSCHED_NO_ACCESS = 4,    /* this user may not */
    VXSCHED_DAMAGED = 5,      /* the table is damaged, or would harm who loads it */
    VXSCHED_NO_SCHEDULER = 6, /* tasks are due and there is no scheduling process to start them */
    VXSCHED_BUSY = 7,         /* somebody else was at it for too long; nothing was changed */
    VXSCHED_FAILED = 8        /* the system refused something, or memory ran out */
} vxsched_error;

typedef struct vxsched_store vxsched_store;

typedef struct vxsched_task {
    const char* name;
    int64_t next;
    int64_t last; /* 0: never */
    uint32_t period;
    const char* program;
    const char* parameter;
    bool paused;
} vxsched_task;
/* NOLINTEND(modernize-use-using) */

/* The tasks of `directory`, the scheduling process's working directory. Nothing is opened yet. NULL
   when memory runs out. vxsched_close() frees it; NULL is allowed there. */
VXSCHED_PUBLIC vxsched_store* vxsched_open(const char* directory);
VXSCHED_PUBLIC void vxsched_close(vxsched_store* store);

/* What the last call had to say when it failed, for a person; empty when it did not. Valid until the
   next call with this store. */
VXSCHED_PUBLIC const char* vxsched_message(const vxsched_store* store);

/* How long the calls wait for others, in milliseconds; 10000 at first. */
VXSCHED_PUBLIC void vxsched_set_lock_timeout(vxsched_store* store, int64_t milliseconds);

/* Calls `each` for every task in the order of the table, until it returns false. The texts are valid
   during that call only; a text with a zero byte in it is seen up to there. */
VXSCHED_PUBLIC vxsched_error vxsched_list(vxsched_store* store,
                                          bool (*each)(const vxsched_task*, void* context),
                                          void* context);

/* Adds a task, active; `last` and `paused` are not looked at. With `replace`, in the place of one of
   that name. */
VXSCHED_PUBLIC vxsched_error vxsched_create(vxsched_store* store, const vxsched_task* task,
                                            bool replace);
VXSCHED_PUBLIC vxsched_error vxsched_remove(vxsched_store* store, const char* name);
VXSCHED_PUBLIC vxsched_error vxsched_pause(vxsched_store* store, const char* name);
VXSCHED_PUBLIC vxsched_error vxsched_resume(vxsched_store* store, const char* name);
VXSCHED_PUBLIC vxsched_error vxsched_set_period(vxsched_store* store, const char* name,
                                                uint32_t hours);

/* Starts the task's program now, outside the schedule. Refused while it runs, unless `force`. Its
   process goes to `process` unless that is NULL. */
VXSCHED_PUBLIC vxsched_error vxsched_run(vxsched_store* store, const char* name, bool force,
                                         pid_t* process);

/* Has the scheduling process look at once; VXSCHED_NO_SCHEDULER when there is none. */
VXSCHED_PUBLIC vxsched_error vxsched_wake(vxsched_store* store);

#ifdef __cplusplus
}
#endif

#endif
