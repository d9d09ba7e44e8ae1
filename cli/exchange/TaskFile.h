#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include <vxsched/Table.h>
#include "cli/commands/Commands.h"

namespace vxsched {

// Files of tasks in TOML, as people keep them under version control: one table a task, with the options
// of `create` as keys. docs/task-files.md describes them.

// Where something begins in a file; both count from 1.
struct TPlace {
    std::size_t line = 1;
    std::size_t column = 1;

    bool operator<(const TPlace& other) const {
        return std::tie(line, column) < std::tie(other.line, other.column);
    }
};

// A task of a file, with what [defaults] adds to it. Its arguments are those of `create`, but for the times,
// which are checked by whoever applies them.
struct TFileTask {
    TTaskArguments arguments;
    std::optional<bool> paused;
    TPlace place;                          // of its name
    std::map<std::string, TPlace> places;  // of its values by their keys; not of defaults

    // Where a key's value is; the task's name, if the value is a default.
    TPlace PlaceOf(const std::string& key) const;
};

struct TFileError {
    TPlace place;
    std::string text;
};

struct TTaskFile {
    std::vector<TFileTask> tasks;    // in the order of the file
    std::vector<TFileError> errors;  // in the order of the file; without any, `tasks` is complete
};

// Reads the bytes of such a file. What is no TOML is a single error. Uses no store. Throws nothing but
// std::bad_alloc.
TTaskFile ReadTaskFile(std::string_view bytes);

// The table of a task, from which ReadTaskFile() reads what makes the same task. Throws CError (cRefused),
// for a message after the task's name, if TOML cannot say it. `directory` is the store's.
std::string WriteFileTask(const std::string& directory, const TTaskEntry& task);

}  // namespace vxsched
