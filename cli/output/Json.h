// Tasks as JSON, exact to the second and to the byte: times are seconds since 1970; a string that
// is not UTF-8 becomes {"base64": "..."}. Every document has the field "version" with the value 1.
// Later versions may add fields, so a reader must ignore fields that it does not know.

#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include <vxsched/Table.h>

namespace vxsched {

// A string, or an object with "base64" if `bytes` are not UTF-8.
nlohmann::ordered_json JsonOfString(const std::string& bytes);

// An object with the fields of the task that an import reads.
nlohmann::ordered_json JsonOfTask(const TTaskEntry& task);

// A past time in ISO 8601; null for the epoch, which means never.
nlohmann::ordered_json JsonOfLast(TTime time);

// A complete document: the content after the version, indented, with a line end. What Show() would
// replace is escaped (\u009b), so that a terminal obeys nothing in it.
std::string Document(const nlohmann::ordered_json& content);

// One task of an import.
struct TImported {
    TTaskEntry task;
    std::string realProgram;  // the target if the program is a link; else empty
};

// Reads a document that Export() or a person wrote: {"version": 1, "tasks": [{"name", "next",
// "last", "period", "program", "parameter", "paused", "real_program"}]}. Only name, next and
// program are required; "next" and "last" are seconds, "period" is in hours. Throws CError
// (cRefused) with the line and column, or with the task and its field, to be printed after the
// name of the input.
std::vector<TImported> ReadTasks(const std::string& input);

}  // namespace vxsched
