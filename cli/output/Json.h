#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include <vxsched/Table.h>

namespace vxsched {

// Tasks as JSON, with every field to the second and to the byte: times as seconds since 1970, texts
// as strings or, where they are not UTF-8, as {"base64": "..."}. The field "version" is 1; fields may
// be added to it.

nlohmann::ordered_json JsonOfText(const std::string& text);
nlohmann::ordered_json JsonOfTask(const TTaskEntry& task);

// A time in the past in the way of ISO 8601; null for the beginning of 1970, which stands for never.
nlohmann::ordered_json JsonOfLast(TTime time);

// A whole document, with its line end.
std::string Document(const nlohmann::ordered_json& content);

// What Export wrote, or somebody by hand: {"version": 1, "tasks": [{"name", "next", "last", "period",
// "program", "parameter", "paused", "real_program"}]}, of which name, next and program are needed.
struct TImported {
    TTaskEntry task;
    std::string realProgram;  // what the program's link leads to; empty when it is none
};

// Throws CError (cRefused) that names the task and the field that makes no sense.
std::vector<TImported> ReadTasks(const std::string& text);

}  // namespace vxsched
