#include <vxsched/vxsched.h>

#include <exception>
#include <new>
#include <string>

#include <vxsched/Error.h>
#include <vxsched/Store.h>
#include "base/AbsolutePath.h"
#include "store/MakeError.h"

struct vxsched_store {
    vxsched::TStoreOptions options;
    std::string message = {};
};

namespace {

vxsched_error CodeOf(vxsched::EError error) {
    switch (error) {
        case vxsched::EError::cRefused:
            return VXSCHED_REFUSED;
        case vxsched::EError::cNotFound:
            return VXSCHED_NOT_FOUND;
        case vxsched::EError::cNoAccess:
            return VXSCHED_NO_ACCESS;
        case vxsched::EError::cDamaged:
            return VXSCHED_DAMAGED;
        case vxsched::EError::cNoScheduler:
            return VXSCHED_NO_SCHEDULER;
        case vxsched::EError::cBusy:
            return VXSCHED_BUSY;
        case vxsched::EError::cUnknown:
            return VXSCHED_UNKNOWN;
        case vxsched::EError::cFailed:
            break;
    }
    return VXSCHED_FAILED;
}

// Makes a call and turns its exceptions into an error and a message: none may pass into C.
template <typename Call>
vxsched_error Do(vxsched_store* store, const Call& call) {
    try {
        store->message.clear();
        vxsched::TStoreOptions options = store->options;
        options.onWarning = [store](const std::string& warning) {
            store->message += (store->message.empty() ? "" : "\n") + warning;
        };
        call(vxsched::CStore(options));
        return VXSCHED_DONE;
    } catch (const vxsched::CError& error) {
        store->message = error.what();
        return CodeOf(error.Code());
    } catch (const std::exception& error) {
        store->message = error.what();
        return VXSCHED_FAILED;
    }
}

std::string StringOf(const char* string) {
    return string != nullptr ? string : "";
}

}  // namespace

vxsched_store* vxsched_open(const char* directory) {
    try {
        return new vxsched_store{{.directory = StringOf(directory)}};
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

void vxsched_close(vxsched_store* store) {
    delete store;
}

const char* vxsched_message(const vxsched_store* store) {
    return store->message.c_str();
}

void vxsched_set_lock_timeout(vxsched_store* store, int64_t milliseconds) {
    store->options.lockTimeout = std::chrono::milliseconds(milliseconds);
}

vxsched_error vxsched_list(vxsched_store* store, bool (*each)(const vxsched_task*, void*),
                           void* context) {
    return Do(store, [&](const vxsched::CStore& tasks) {
        for (const vxsched::TTaskEntry& task : tasks.Read().tasks) {
            const vxsched_task shown{task.name.c_str(),
                                     task.next.time_since_epoch().count(),
                                     task.last.time_since_epoch().count(),
                                     task.period,
                                     task.program.c_str(),
                                     task.parameter.c_str(),
                                     task.paused};
            if (!each(&shown, context))
                return;
        }
    });
}

vxsched_error vxsched_create(vxsched_store* store, const vxsched_task* task, bool replace) {
    return Do(store, [&](const vxsched::CStore& tasks) {
        tasks.Create({StringOf(task->name), vxsched::TTime(std::chrono::seconds(task->next)),
                      task->period, StringOf(task->program), StringOf(task->parameter)},
                     replace);
    });
}

vxsched_error vxsched_remove(vxsched_store* store, const char* name) {
    return Do(store, [&](const vxsched::CStore& tasks) { tasks.Remove({StringOf(name)}); });
}

vxsched_error vxsched_pause(vxsched_store* store, const char* name) {
    return Do(store, [&](const vxsched::CStore& tasks) { tasks.Pause({StringOf(name)}); });
}

vxsched_error vxsched_resume(vxsched_store* store, const char* name) {
    return Do(store, [&](const vxsched::CStore& tasks) { tasks.Resume({StringOf(name)}); });
}

vxsched_error vxsched_set_period(vxsched_store* store, const char* name, uint32_t hours) {
    return Do(store, [&](const vxsched::CStore& tasks) { tasks.SetPeriod(StringOf(name), hours); });
}

vxsched_error vxsched_run(vxsched_store* store, const char* name, bool force, pid_t* process) {
    return Do(store, [&](const vxsched::CStore& tasks) {
        const vxsched::TRun run = tasks.Run(StringOf(name), force, false);
        if (process != nullptr)
            *process = run.process;
    });
}

vxsched_error vxsched_wake(vxsched_store* store) {
    return Do(store, [&](const vxsched::CStore& tasks) {
        if (!tasks.Wake())
            throw vxsched::MakeError(vxsched::EError::cNoScheduler,
                                     "there is no scheduling process in {}; start one there",
                                     vxsched::AbsolutePath(store->options.directory));
    });
}
