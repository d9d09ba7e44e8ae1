/* The client library for C: the tasks of one directory, read without any effect and changed without
   harm to the scheduling process or other clients. Conventions:

   1. Strings are bytes that end with a zero. The functions copy what they are given; a null pointer
      is the empty string. Strings that they hand out are the library's and are valid as long as
      stated.
   2. Times are seconds since the epoch, periods whole hours (0 runs once), timeouts milliseconds.
   3. A function that can fail returns a vxsched_error; vxsched_message() then has the message, for
      a person. A call that fails has changed nothing unless its message states otherwise.
   4. Any function that returns a vxsched_error may return VXSCHED_NO_ACCESS or VXSCHED_FAILED, and
      those that read or change the table VXSCHED_BUSY or VXSCHED_DAMAGED. Other errors are stated at
      each function.
   5. A change waits for the writer lock and the store mutex, for at most the lock timeout each; the
      caller must hold neither. While an active task is due, it first wakes the scheduling process
      and waits until that has launched the due tasks, at most the lock timeout without progress and
      ten times that in all; without a scheduling process in this IPC namespace it returns
      VXSCHED_NO_SCHEDULER. A change is made in a child process. The child process is killed when
      it sends no message for 2 x the lock timeout + 10 s, for a run + 10 s.
   6. A vxsched_store is for one thread at a time; threads may use distinct ones at the same time.
      `store` must not be null. It holds no lock, file or memory of the table between calls.
   7. No exception leaves these functions. They install no signal handler. */
#ifndef VXSCHED_H
#define VXSCHED_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <vxsched/Public.h>

#ifdef __cplusplus
extern "C" {
#endif

/* NOLINTBEGIN(modernize-use-using): C has no other way. */
/* 0 to 6 and 9 are the exit statuses of the command vxsched as well; 2 is its own, for a usage
   error. */
typedef enum vxsched_error {
    VXSCHED_DONE = 0,
    VXSCHED_REFUSED = 1,      /* a validation error, or the state of the task forbids the change */
    VXSCHED_NOT_FOUND = 3,    /* the table has no task of that name */
    VXSCHED_NO_ACCESS = 4,    /* this user lacks the permission */
    VXSCHED_DAMAGED = 5,      /* the table is damaged, or loading it would hang a process */
    VXSCHED_NO_SCHEDULER = 6, /* the call needs a scheduling process, and there is none in reach */
    VXSCHED_BUSY = 7,         /* a wait exceeded the lock timeout */
    VXSCHED_FAILED = 8,       /* a system call or the add-in failed, or memory ran out */
    VXSCHED_UNKNOWN = 9       /* the change was cut short; whether it was made cannot be told */
} vxsched_error;

typedef struct vxsched_store vxsched_store;

typedef struct vxsched_task {
    const char* name; /* compared byte for byte */
    int64_t next;     /* the next due time */
    int64_t last;     /* the last launch; 0: never */
    uint32_t period;
    const char* program;   /* an absolute path */
    const char* parameter; /* the program's single argument */
    bool paused;
} vxsched_task;

/* What an edit changes; a null pointer leaves that as it is. */
typedef struct vxsched_edit_fields {
    const char* name; /* the new one */
    const int64_t* next;
    const uint32_t* period;
    const char* program; /* instead of `job` */
    const char* parameter;
    const char* const* job; /* see vxsched_create_job(); an option with the value "" is removed */
} vxsched_edit_fields;

/* A run, or due times without a launch, as the history has it; docs/operating.md describes the
   fields. A string that the record lacks is empty, a number 0. */
typedef struct vxsched_record {
    const char* run;     /* the id; unique in the store */
    const char* task;    /* empty if the launch could not be assigned to a task */
    const char* outcome; /* "exited", "killed", "missed", ... */
    bool failed;         /* it needs attention: a bad status, killed, not started, missed, ... */
    int number;          /* the exit status or the signal */
    const char* error;
    const char* program;
    const char* parameter;
    const char* trigger; /* "schedule", "catch-up", "manual" or "retry" */
    int attempt;         /* from 1 */
    pid_t process;
    int64_t due;     /* seconds */
    int64_t started; /* milliseconds since the epoch */
    int64_t ended;   /* likewise */
} vxsched_record;
/* NOLINTEND(modernize-use-using) */

/* Makes a store for `directory`, the scheduling process's working directory. Opens no file: a
   missing directory is an error of later calls. The caller frees it with vxsched_close(). NULL if
   memory runs out. */
VXSCHED_PUBLIC vxsched_store* vxsched_open(const char* directory);

/* Frees the store and its message. NULL is allowed. */
VXSCHED_PUBLIC void vxsched_close(vxsched_store* store);

/* The message of the last call with this store: what failed, why, and what to do. After a success,
   a warning if the change is made and the scheduling process could not be notified of it, so that it
   takes effect later, or the disk could not be flushed, so that a power failure may lose it; else
   empty. Never NULL. Valid until the next call with this store. */
VXSCHED_PUBLIC const char* vxsched_message(const vxsched_store* store);

/* Sets how long later calls wait for each lock and for the scheduling process, in milliseconds;
   60000 at first. From 0 to 1000000000. */
VXSCHED_PUBLIC void vxsched_set_lock_timeout(vxsched_store* store, int64_t milliseconds);

/* Sets which validation errors later calls ignore: their names, separated by blanks, of
   "missing-program", "not-executable", "relative-path", "wrapped-period" and "past-due". Null or empty:
   none, as at first. VXSCHED_REFUSED, and nothing set, for another name. */
VXSCHED_PUBLIC vxsched_error vxsched_set_forced(vxsched_store* store, const char* checks);

/* Has later calls make changes although tasks are due and there is no scheduling process to launch
   them: these stay due. Not so at first. */
VXSCHED_PUBLIC void vxsched_set_even_if_due(vxsched_store* store, bool even_if_due);

/* Begins a change of any number of tasks: from now on the functions that change tasks, from
   vxsched_create() to vxsched_set_period(), only note their change, and return VXSCHED_DONE or
   VXSCHED_REFUSED for what is no job. vxsched_commit() makes the noted changes as one. What was noted
   before is forgotten. */
VXSCHED_PUBLIC vxsched_error vxsched_begin(vxsched_store* store);

/* Makes the noted changes, each on what the ones before it have left: all of them in one save or, if
   one cannot be made, none. Returns what that one would return. The changes are over on success; after
   a failure they are still noted, and may be committed again. VXSCHED_REFUSED if none were begun. */
VXSCHED_PUBLIC vxsched_error vxsched_commit(vxsched_store* store);

/* Forgets the noted changes; without any it does nothing. */
VXSCHED_PUBLIC void vxsched_cancel(vxsched_store* store);

/* Reads the table and calls `each` for every task, in the order of the table, until it returns
   false. No lock is held meanwhile. The task and its strings are valid during that call only; a
   string that holds a zero byte ends there. `context` is handed on as it is. A missing table has no
   tasks. */
VXSCHED_PUBLIC vxsched_error vxsched_list(vxsched_store* store,
                                          bool (*each)(const vxsched_task*, void* context),
                                          void* context);

/* Adds an active task; `last` and `paused` are ignored. With `replace` it replaces a task of the
   same name and keeps its last launch. VXSCHED_REFUSED on a validation error, and without `replace`
   if the name is taken. */
VXSCHED_PUBLIC vxsched_error vxsched_create(vxsched_store* store, const vxsched_task* task,
                                            bool replace);

/* Adds an active task that the runner executes. `job` are words that end with a null pointer, as those
   after the name in the command vxsched create: options, "--" and the program with its arguments.
   {"--cron", "30 2 * * *", "--timeout=2h", "--", "/usr/bin/python3", "/srv/cleanup.py", NULL}. A
   calendar sets the due time and the period, instead of `next` and `period`. As vxsched_create()
   otherwise; VXSCHED_REFUSED also for words that are no job. */
VXSCHED_PUBLIC vxsched_error vxsched_create_job(vxsched_store* store, const char* name,
                                                int64_t next, uint32_t period,
                                                const char* const* job, bool replace);

/* Changes a task. A paused task stays paused; a repeating one whose due time is past is rescheduled. An
   active task with a past due time is due, and its program runs at once. If the task changes
   meanwhile, the edit is applied to the changed task. VXSCHED_REFUSED on a validation error, for words
   that are no job, and if the new name is taken; VXSCHED_NOT_FOUND if there is no such task. */
VXSCHED_PUBLIC vxsched_error vxsched_edit(vxsched_store* store, const char* name,
                                          const vxsched_edit_fields* edit);

/* VXSCHED_NOT_FOUND if there is no such task. */
VXSCHED_PUBLIC vxsched_error vxsched_remove(vxsched_store* store, const char* name);

/* VXSCHED_NOT_FOUND if there is no such task. */
VXSCHED_PUBLIC vxsched_error vxsched_pause(vxsched_store* store, const char* name);

/* A repeating task whose due time passed while it was paused is rescheduled; one that runs once is
   refused (VXSCHED_REFUSED), since it would be removed without a run. VXSCHED_NOT_FOUND if there is
   no such task. */
VXSCHED_PUBLIC vxsched_error vxsched_resume(vxsched_store* store, const char* name);

/* Changes the period, counted on from the task's previous due time; 0 keeps the next due time and
   makes the task run once. VXSCHED_REFUSED on a validation error, VXSCHED_NOT_FOUND if there is no
   such task. */
VXSCHED_PUBLIC vxsched_error vxsched_set_period(vxsched_store* store, const char* name,
                                                uint32_t hours);

/* Launches the task's program now, outside the schedule, by the host if one runs; does not wait for
   its end. VXSCHED_UNKNOWN if the host ended before it reported whether the program was launched. On
   success its process id is stored in `*process`, unless that is NULL.
   VXSCHED_REFUSED if the program cannot be launched as it is named or, without `force`, if it is
   still running; VXSCHED_NOT_FOUND if there is no such task. */
VXSCHED_PUBLIC vxsched_error vxsched_run(vxsched_store* store, const char* name, bool force,
                                         pid_t* process);

/* The same, and waits for the program's end, without limit. On success its wait status, as of
   waitpid(), is stored in `*status`. VXSCHED_FAILED also if it was launched and its end is not known. */
VXSCHED_PUBLIC vxsched_error vxsched_run_and_wait(vxsched_store* store, const char* name,
                                                  bool force, pid_t* process, int* status);

/* Reads the history of a task, or of all if `name` is null, and calls `each` for every record, the
   oldest first, until it returns false. The record and its strings are valid during that call only.
   Lines that cannot be read are left out; the message says which. Takes no lock. */
VXSCHED_PUBLIC vxsched_error vxsched_history(vxsched_store* store, const char* name,
                                             bool (*each)(const vxsched_record*, void* context),
                                             void* context);

/* Reads what a run of a task has written, as far as it is kept: of the last run for `number` 1, of the
   one before for 2, up to ten. Calls `each` for each part until it returns false; the bytes do not end
   with a zero. What a run that goes on writes later is not waited for. Takes no lock.
   VXSCHED_NOT_FOUND if that output is not kept. */
VXSCHED_PUBLIC vxsched_error
vxsched_output(vxsched_store* store, const char* name, unsigned int number,
               bool (*each)(const char* bytes, size_t size, void* context), void* context);

/* Wakes the scheduling process, so that it checks for due tasks at once. Does not block.
   VXSCHED_NO_SCHEDULER if there is none. */
VXSCHED_PUBLIC vxsched_error vxsched_wake(vxsched_store* store);

#ifdef __cplusplus
}
#endif

#endif
