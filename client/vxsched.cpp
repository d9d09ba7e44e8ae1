#include <vxsched/vxsched.h>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <exception>
#include <new>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <vxsched/Changes.h>
#include <vxsched/Error.h>
#include <vxsched/Store.h>
#include "base/AbsolutePath.h"
#include "base/IsoTime.h"
#include "client/TaskJob.h"
#include "jobs/CJobError.h"
#include "runs/COutputReader.h"
#include "runs/HistoryReader.h"
#include "runs/OutputFiles.h"
#include "runs/RunRecord.h"
#include "store/COwnerAccess.h"
#include "store/MakeError.h"

struct vxsched_store {
    vxsched::TStoreOptions options;
    vxsched::TForced forced = {};
    std::optional<vxsched::CChanges> changes = {};  // since vxsched_begin()
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
        call();
        return VXSCHED_DONE;
    } catch (const vxsched::CError& error) {
        store->message = error.what();
        return CodeOf(error.Code());
    } catch (const vxsched::CJobError& error) {
        store->message = error.what();
        return VXSCHED_REFUSED;
    } catch (const std::exception& error) {
        store->message = error.what();
        return VXSCHED_FAILED;
    }
}

vxsched::TStoreOptions OptionsOf(vxsched_store* store) {
    vxsched::TStoreOptions options = store->options;
    options.onWarning = [store](const std::string& warning) {
        store->message += (store->message.empty() ? "" : "\n") + warning;
    };
    return options;
}

// Notes a change, or makes it if none were begun.
template <typename Note>
vxsched_error Change(vxsched_store* store, const Note& note) {
    return Do(store, [&] {
        if (store->changes)
            return note(*store->changes);
        vxsched::CChanges changes(OptionsOf(store));
        note(changes);
        changes.Commit();
    });
}

std::string StringOf(const char* string) {
    return string != nullptr ? string : "";
}

std::vector<std::string> WordsOf(const char* const* words) {
    std::vector<std::string> strings;
    while (*words != nullptr)
        strings.emplace_back(*words++);
    return strings;
}

vxsched::TTime TimeOf(std::int64_t seconds) {
    return vxsched::TTime(std::chrono::seconds(seconds));
}

std::int64_t MillisecondsOf(const std::optional<TMoment>& moment) {
    return moment ? moment->time_since_epoch() / std::chrono::milliseconds(1) : 0;
}

vxsched::TEdit EditOf(const vxsched_store* store, const vxsched_edit_fields& fields) {
    const auto string = [](const char* given) {
        return given != nullptr ? std::optional<std::string>(given) : std::nullopt;
    };
    vxsched::TEdit edit;
    edit.name = string(fields.name);
    if (fields.next != nullptr)
        edit.due = TimeOf(*fields.next);
    if (fields.period != nullptr)
        edit.period = *fields.period;
    vxsched::TJobChange job;
    if (fields.job != nullptr)
        job = vxsched::ReadJobChange(WordsOf(fields.job));
    job.program = string(fields.program);
    job.parameter = string(fields.parameter);
    if (!job.IsEmpty())
        edit.command = [directory = store->options.directory, job](vxsched::TTaskEntry& task) {
            vxsched::ChangeJob(directory, task, job);
        };
    return edit;
}

vxsched_record RecordOf(const TRunRecord& run) {
    return {.run = run.id.c_str(),
            .task = run.task ? run.task->c_str() : "",
            .outcome = OutcomeName(run),
            .failed = !HasNoFailure(run),
            .number = run.number,
            .error = run.error.c_str(),
            .program = run.program.c_str(),
            .parameter = run.parameter.c_str(),
            .trigger = run.trigger.c_str(),
            .attempt = run.attempt,
            .process = run.process,
            .due = run.due ? run.due->time_since_epoch().count() : 0,
            .started = MillisecondsOf(run.started),
            .ended = MillisecondsOf(run.ended)};
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

vxsched_error vxsched_set_forced(vxsched_store* store, const char* checks) {
    return Do(store, [&] {
        const std::set<std::string_view> known = {"missing-program", "not-executable",
                                                  "relative-path", "wrapped-period", "past-due"};
        vxsched::TForced forced;
        std::istringstream words(StringOf(checks));
        for (std::string word; words >> word; forced.insert(word)) {
            if (!known.contains(word))
                throw vxsched::MakeError(vxsched::EError::cRefused,
                                         "there is no check \"{}\" that could be skipped; give {}",
                                         word, fmt::join(known, ", "));
        }
        store->forced = std::move(forced);
    });
}

void vxsched_set_even_if_due(vxsched_store* store, bool even_if_due) {
    store->options.evenIfDue = even_if_due;
}

vxsched_error vxsched_begin(vxsched_store* store) {
    return Do(store, [&] { store->changes.emplace(OptionsOf(store)); });
}

vxsched_error vxsched_commit(vxsched_store* store) {
    return Do(store, [&] {
        if (!store->changes)
            throw vxsched::MakeError(vxsched::EError::cRefused,
                                     "no changes were begun; call vxsched_begin() before them");
        store->changes->Commit();
        store->changes.reset();
    });
}

void vxsched_cancel(vxsched_store* store) {
    store->changes.reset();
}

vxsched_error vxsched_list(vxsched_store* store, bool (*each)(const vxsched_task*, void*),
                           void* context) {
    return Do(store, [&] {
        for (const vxsched::TTaskEntry& task : vxsched::CStore(store->options).Read().tasks) {
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
    return Change(store, [&](vxsched::CChanges& changes) {
        changes.Create({StringOf(task->name), TimeOf(task->next), task->period,
                        StringOf(task->program), StringOf(task->parameter)},
                       replace, store->forced);
    });
}

vxsched_error vxsched_create_job(vxsched_store* store, const char* name, int64_t next,
                                 uint32_t period, const char* const* job, bool replace) {
    return Change(store, [&](vxsched::CChanges& changes) {
        vxsched::TTaskEntry task;
        task.name = StringOf(name);
        vxsched::MakeJob(store->options.directory, task, vxsched::ReadJobChange(WordsOf(job)));
        changes.Create({task.name, TimeOf(next), period, task.program, task.parameter}, replace,
                       store->forced);
    });
}

vxsched_error vxsched_edit(vxsched_store* store, const char* name,
                           const vxsched_edit_fields* edit) {
    return Change(store, [&](vxsched::CChanges& changes) {
        changes.Edit(StringOf(name), EditOf(store, *edit), store->forced);
    });
}

vxsched_error vxsched_remove(vxsched_store* store, const char* name) {
    return Change(store, [&](vxsched::CChanges& changes) { changes.Remove({StringOf(name)}); });
}

vxsched_error vxsched_pause(vxsched_store* store, const char* name) {
    return Change(store, [&](vxsched::CChanges& changes) { changes.Pause({StringOf(name)}); });
}

vxsched_error vxsched_resume(vxsched_store* store, const char* name) {
    return Change(store, [&](vxsched::CChanges& changes) {
        changes.Resume({StringOf(name)}, store->forced);
    });
}

vxsched_error vxsched_set_period(vxsched_store* store, const char* name, uint32_t hours) {
    return Change(store, [&](vxsched::CChanges& changes) {
        changes.SetPeriod(StringOf(name), hours, store->forced);
    });
}

vxsched_error vxsched_run(vxsched_store* store, const char* name, bool force, pid_t* process) {
    return Do(store, [&] {
        const vxsched::TRun run =
            vxsched::CStore(OptionsOf(store)).Run(StringOf(name), force, false);
        if (process != nullptr)
            *process = run.process;
    });
}

vxsched_error vxsched_run_and_wait(vxsched_store* store, const char* name, bool force,
                                   pid_t* process, int* status) {
    return Do(store, [&] {
        const auto launched = [&](const vxsched::TRun& run) {
            if (process != nullptr)
                *process = run.process;
        };
        const vxsched::TRun run =
            vxsched::CStore(OptionsOf(store)).Run(StringOf(name), force, true, launched);
        if (status != nullptr)
            *status = run.status.value_or(0);
    });
}

vxsched_error vxsched_history(vxsched_store* store, const char* name,
                              bool (*each)(const vxsched_record*, void*), void* context) {
    return Do(store, [&] {
        const vxsched::COwnerAccess ownerAccess(store->options.directory);
        const vxsched::THistory history =
            vxsched::ReadHistory(store->options.directory.string(),
                                 name != nullptr ? std::optional<std::string>(name) : std::nullopt);
        store->message = fmt::format("{}", fmt::join(history.problems, "\n"));
        for (const TRunRecord& run : history.runs) {
            const vxsched_record record = RecordOf(run);
            if (!each(&record, context))
                return;
        }
    });
}

vxsched_error vxsched_output(vxsched_store* store, const char* name, unsigned int number,
                             bool (*each)(const char*, size_t, void*), void* context) {
    return Do(store, [&] {
        const vxsched::COwnerAccess ownerAccess(store->options.directory);
        const std::vector<vxsched::TOutput> outputs =
            vxsched::FindOutputs(store->options.directory.string(), StringOf(name));
        if (number == 0 || number > outputs.size())
            throw vxsched::MakeError(vxsched::EError::cNotFound, "{} outputs of \"{}\" are kept",
                                     outputs.size(), StringOf(name));
        vxsched::COutputReader reader(store->options.directory / outputs[number - 1].path);
        const std::uint64_t end = reader.Written();
        for (std::string bytes; !(bytes = reader.Next(end)).empty();) {
            if (!each(bytes.data(), bytes.size(), context))
                return;
        }
    });
}

vxsched_error vxsched_wake(vxsched_store* store) {
    return Do(store, [&] {
        if (!vxsched::CStore(store->options).Wake())
            throw vxsched::MakeError(vxsched::EError::cNoScheduler,
                                     "there is no scheduling process in {}; start one there",
                                     vxsched::AbsolutePath(store->options.directory));
    });
}
