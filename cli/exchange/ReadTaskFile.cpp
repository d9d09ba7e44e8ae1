#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <array>
#include <sstream>
#include <string_view>
#include <utility>

#include "base/DisplayText.h"
#include "base/FindNearest.h"
#include "cli/exchange/FindDeepKey.h"
#include "cli/exchange/TaskFile.h"
#include "cli/exchange/Toml.h"
#include "jobs/CJobError.h"
#include "jobs/JobOptions.h"

namespace vxsched {

namespace {

constexpr std::string_view cDefaults = "defaults";
constexpr std::string_view cTasks = "tasks";
constexpr std::string_view cCommand = "command";
constexpr std::string_view cPaused = "paused";
constexpr std::string_view cAt = "at";
constexpr std::string_view cEvery = "every";
constexpr std::string_view cEnvironment = "env";
constexpr std::array<std::string_view, 3> cCalendarForms = {"daily", "weekly", "monthly"};

// A value or a key is not as it should be. Caught in this file.
struct CWrongValue {
    TPlace place;
    std::string text;
};

TPlace PlaceOfRegion(const toml::source_region& region) {
    return {region.begin.line, region.begin.column};
}

TPlace PlaceIn(const toml::node& node) {
    return PlaceOfRegion(node.source());
}

const char* KindOf(const toml::node& node) {
    switch (node.type()) {
        case toml::node_type::table:
            return "a table";
        case toml::node_type::array:
            return "an array";
        case toml::node_type::string:
            return "a string";
        case toml::node_type::integer:
            return "an integer";
        case toml::node_type::floating_point:
            return "a floating-point number";
        case toml::node_type::boolean:
            return "a boolean";
        default:
            return "a date or a time";
    }
}

[[noreturn]] void ThrowKind(const toml::node& node, std::string_view key,
                            std::string_view expected) {
    throw CWrongValue{PlaceIn(node),
                      fmt::format("{}: expected {}, not {}", key, expected, KindOf(node))};
}

bool IsCalendarForm(std::string_view key) {
    return std::find(cCalendarForms.begin(), cCalendarForms.end(), key) != cCalendarForms.end();
}

const TJobOption* FindOption(std::string_view key) {
    const auto* const found =
        std::find_if(cJobOptions.begin(), cJobOptions.end(),
                     [&](const TJobOption& option) { return option.name == key; });
    return found == cJobOptions.end() || key == cTaskOption ? nullptr : found;
}

// What [defaults] must not have: the schedule and the command are each task's own.
bool IsOfOneTask(std::string_view key) {
    return key == cCommand || key == cShellOption || key == cCronOption || key == cAt ||
           key == cEvery || key == cPaused || key == cUntilOption || IsCalendarForm(key);
}

std::vector<std::string_view> KnownKeys() {
    std::vector<std::string_view> keys = {cCommand, cAt, cEvery, cPaused};
    keys.insert(keys.end(), cCalendarForms.begin(), cCalendarForms.end());
    for (const TJobOption& option : cJobOptions) {
        if (option.name != cTaskOption)
            keys.emplace_back(option.name);
    }
    return keys;
}

std::string StringOf(const toml::node& node, std::string_view key) {
    if (!node.is_string())
        ThrowKind(node, key, "a string");
    return node.as_string()->get();
}

std::vector<std::string> StringsOf(const toml::node& node, std::string_view key) {
    if (!node.is_array())
        ThrowKind(node, key, "an array of strings");
    std::vector<std::string> strings;
    for (const toml::node& one : *node.as_array())
        strings.push_back(StringOf(one, key));
    return strings;
}

// A time as TOML writes it, for ParseTime().
std::string TimeOf(const toml::node& node, std::string_view key) {
    if (node.is_string())
        return node.as_string()->get();
    if (!node.is_date() && !node.is_date_time())
        ThrowKind(node, key, "a date and a time");
    std::ostringstream time;
    if (node.is_date())
        time << node.as_date()->get();
    else
        time << node.as_date_time()->get();
    return time.str();
}

std::vector<std::string> VariablesOf(const toml::node& node) {
    if (!node.is_table())
        return StringsOf(node, cEnvironment);
    std::vector<std::string> variables;
    for (const auto& [name, value] : *node.as_table()) {
        if (name.str().empty() || name.str().find('=') != std::string_view::npos)
            throw CWrongValue{PlaceIn(value),
                              fmt::format("env: \"{}\" is no name of a variable", name.str())};
        variables.push_back(fmt::format("{}={}", name.str(), StringOf(value, cEnvironment)));
    }
    return variables;
}

// Exit statuses: 0, [0, 3] or "0,3".
std::string StatusesOf(const toml::node& node, std::string_view key) {
    if (node.is_integer())
        return fmt::format("{}", node.as_integer()->get());
    if (!node.is_array())
        return StringOf(node, key);
    std::vector<std::int64_t> statuses;
    for (const toml::node& one : *node.as_array()) {
        if (!one.is_integer())
            ThrowKind(one, key, "an integer");
        statuses.push_back(one.as_integer()->get());
    }
    return fmt::format("{}", fmt::join(statuses, ","));
}

std::vector<std::string> ValuesOf(const TJobOption& option, const toml::node& node) {
    const std::string_view key = option.name;
    if (key == cEnvironment)
        return VariablesOf(node);
    if (option.isRepeatable && node.is_array())
        return StringsOf(node, key);
    if (key == cUntilOption)
        return {TimeOf(node, key)};
    if (key == "success")
        return {StatusesOf(node, key)};
    if (option.implied != nullptr && node.is_boolean())
        return {node.as_boolean()->get() ? option.implied : "no"};
    // Not of a mode, which an integer would say in another base.
    if (node.is_integer() && key != "umask")
        return {fmt::format("{}", node.as_integer()->get())};
    return {StringOf(node, key)};
}

void CheckOption(const TJobOption& option, const std::vector<std::string>& values,
                 const toml::node& node) {
    if (option.name == cUntilOption || values == std::vector<std::string>{""})
        return;
    TJob job;
    try {
        for (const std::string& value : values)
            SetJobOption(job, option, value);
    } catch (const CJobError& error) {
        throw CWrongValue{PlaceIn(node), error.what()};
    }
}

void TakeValue(TFileTask& task, std::string_view key, const toml::node& node) {
    if (key == cCommand) {
        task.arguments.command = StringsOf(node, key);
    } else if (key == cAt) {
        task.arguments.at = TimeOf(node, key);
    } else if (key == cEvery) {
        task.arguments.every = StringOf(node, key);
    } else if (key == cPaused) {
        if (!node.is_boolean())
            ThrowKind(node, key, "true or false");
        task.paused = node.as_boolean()->get();
    } else if (IsCalendarForm(key)) {
        task.arguments.calendar.emplace_back(key, StringOf(node, key));
    } else if (const TJobOption* const option = FindOption(key)) {
        std::vector<std::string> values = ValuesOf(*option, node);
        CheckOption(*option, values, node);
        task.arguments.options[option->name] = std::move(values);
    } else {
        const std::vector<std::string_view> known = KnownKeys();
        const std::string_view nearest = FindNearest(key, known);
        throw CWrongValue{
            {},
            fmt::format("unknown key \"{}\"{}", key,
                        nearest.empty() ? "" : fmt::format(" (did you mean {}?)", nearest))};
    }
    task.places[std::string(key)] = PlaceIn(node);
}

std::string_view NameOfVariable(std::string_view variable) {
    return variable.substr(0, variable.find('='));
}

// The default variables, but for those that the task has itself, and the task's.
std::vector<std::string> JoinVariables(const std::vector<std::string>& defaults,
                                       const std::vector<std::string>& own) {
    std::vector<std::string> joined;
    for (const std::string& variable : defaults) {
        const bool isOwn = std::any_of(own.begin(), own.end(), [&](const std::string& one) {
            return NameOfVariable(one) == NameOfVariable(variable);
        });
        if (!isOwn)
            joined.push_back(variable);
    }
    joined.insert(joined.end(), own.begin(), own.end());
    return joined;
}

void AddDefaults(const TJobArguments& defaults, TFileTask& task) {
    TJobArguments& options = task.arguments.options;
    for (const auto& [name, values] : defaults) {
        const auto [own, isDefault] = options.try_emplace(name, values);
        if (!isDefault && name == cEnvironment)
            own->second = JoinVariables(values, own->second);
    }
    // An empty value removes a default, and there is nothing else that it could remove.
    std::erase_if(options, [](const auto& option) {
        return option.second.empty() || option.second == std::vector<std::string>{""};
    });
}

class CTaskFileReader {
public:
    TTaskFile Read(std::string_view bytes);

private:
    template <typename Take>
    void ForEach(const toml::table& table, const Take& take);
    void ReadDefaults(const toml::node& node);
    void ReadTasks(const toml::node& node);
    void Fail(TPlace place, std::string text) { file.errors.push_back({place, std::move(text)}); }
    void Sort();

    TTaskFile file;
    TFileTask defaults;
};

// Calls `take` with each key and value of a table, and notes what is wrong with them.
template <typename Take>
void CTaskFileReader::ForEach(const toml::table& table, const Take& take) {
    for (const auto& [key, value] : table) {
        const TPlace place = PlaceOfRegion(key.source());
        try {
            take(key.str(), place, value);
        } catch (const CWrongValue& wrong) {
            Fail(std::max(wrong.place, place), wrong.text);
        }
    }
}

void CTaskFileReader::ReadDefaults(const toml::node& node) {
    if (!node.is_table())
        ThrowKind(node, cDefaults, "a table, [defaults]");
    ForEach(*node.as_table(), [&](std::string_view key, TPlace place, const toml::node& value) {
        if (IsOfOneTask(key))
            throw CWrongValue{place, fmt::format("{} is no default; give it to each task", key)};
        TakeValue(defaults, key, value);
    });
}

void CTaskFileReader::ReadTasks(const toml::node& node) {
    if (!node.is_table())
        ThrowKind(node, cTasks, "tables, as [tasks.backup]");
    ForEach(*node.as_table(), [&](std::string_view name, TPlace place, const toml::node& table) {
        if (!table.is_table())
            ThrowKind(table, name, "a table, as [tasks.backup]");
        TFileTask task;
        task.arguments.name = name;
        task.place = place;
        ForEach(*table.as_table(), [&](std::string_view key, TPlace /*place*/,
                                       const toml::node& value) { TakeValue(task, key, value); });
        AddDefaults(defaults.arguments.options, task);
        file.tasks.push_back(std::move(task));
    });
}

// The library keeps tables by the names of their keys.
void CTaskFileReader::Sort() {
    std::sort(file.tasks.begin(), file.tasks.end(),
              [](const TFileTask& one, const TFileTask& other) { return one.place < other.place; });
    std::stable_sort(
        file.errors.begin(), file.errors.end(),
        [](const TFileError& one, const TFileError& other) { return one.place < other.place; });
}

TPlace PlaceOfOffset(std::string_view bytes, std::size_t offset) {
    const std::string_view before = bytes.substr(0, offset);
    const std::size_t lineEnd = before.rfind('\n');
    return {static_cast<std::size_t>(std::count(before.begin(), before.end(), '\n')) + 1,
            offset - (lineEnd == std::string_view::npos ? 0 : lineEnd + 1) + 1};
}

TTaskFile CTaskFileReader::Read(std::string_view bytes) {
    if (const std::optional<std::size_t> deep = FindDeepKey(bytes)) {
        Fail(PlaceOfOffset(bytes, *deep),
             fmt::format("a key with more than {} parts", cMostKeyParts));
        return std::move(file);
    }
    try {
        const toml::table content = toml::parse(bytes);
        ForEach(content, [&](std::string_view key, TPlace place, const toml::node& value) {
            if (key == cDefaults)
                ReadDefaults(value);
            else if (key == cTasks)
                return;
            else
                throw CWrongValue{
                    place,
                    value.is_table()
                        ? fmt::format("write [tasks.{0}] for a task, not [{0}]", key)
                        : fmt::format("\"{}\" is in no table; begin one, as [tasks.backup]", key)};
        });
        ForEach(content, [&](std::string_view key, TPlace /*place*/, const toml::node& value) {
            if (key == cTasks)
                ReadTasks(value);
        });
    } catch (const toml::parse_error& error) {
        Fail(PlaceOfRegion(error.source()), std::string(error.description()));
    }
    Sort();
    return std::move(file);
}

}  // namespace

TPlace TFileTask::PlaceOf(const std::string& key) const {
    const auto found = places.find(key);
    return found == places.end() ? place : found->second;
}

TTaskFile ReadTaskFile(std::string_view bytes) {
    return CTaskFileReader().Read(bytes);
}

}  // namespace vxsched
