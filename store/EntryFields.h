#pragma once

#include <cstdint>
#include <type_traits>

#include <vxsched/Table.h>
#include "scheduler/TaskFields.h"

namespace vxsched {

// One field of a task in the bytes of a table; the value is the caller's.
template <typename Value>
struct TField {
    Value& value;
    const char* what;  // for messages; of a string it describes the length, which comes first
};

// The fields of a TTaskEntry, or of a TTaskView, under the names of the add-in's TTask, whose order
// in the file ForEachField() defines. `Entry` may be const.
template <typename Entry>
struct TEntryFields {
    using TString = decltype(Entry::name);
    template <typename Value>
    using TLike = TField<std::conditional_t<std::is_const_v<Entry>, const Value, Value>>;

    TLike<TString> name;
    TLike<TTime> nextExecution;
    TLike<TTime> lastExecuted;
    TLike<std::uint32_t> period;
    TLike<TString> program;
    TLike<TString> parameters;
    TLike<std::uint32_t> paused;
};

// Passes the fields of a task to `transfer` one by one, in the order of the file: a TField of its
// kind of string, TTime or std::uint32_t. `flag` takes the place of TTaskEntry::paused, since the
// file may hold any number.
template <typename Entry, typename Flag, typename Transfer>
void TransferFields(Entry& task, Flag& flag, const Transfer& transfer) {
    TEntryFields<Entry> fields{.name = {task.name, "the length of the name"},
                               .nextExecution = {task.next, "the next due time"},
                               .lastExecuted = {task.last, "the last launch"},
                               .period = {task.period, "the period"},
                               .program = {task.program, "the length of the program"},
                               .parameters = {task.parameter, "the length of the parameter"},
                               .paused = {flag, "the pause flag"}};
    ::ForEachField(fields, transfer);
}

}  // namespace vxsched
