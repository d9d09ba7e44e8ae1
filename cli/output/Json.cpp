#include "cli/output/Json.h"

#include <fmt/format.h>

#include <array>
#include <nlohmann/json.hpp>
#include <string_view>

#include <vxsched/Error.h>
#include "cli/time/TimeFormat.h"

namespace vxsched {

using TJson = nlohmann::ordered_json;

namespace {

constexpr std::string_view cDigits =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

std::string ToBase64(std::string_view bytes) {
    std::string text;
    for (std::size_t index = 0; index < bytes.size(); index += 3) {
        std::uint32_t group = 0;
        for (std::size_t place = 0; place < 3; ++place) {
            const std::size_t at = index + place;
            group = group << 8U | (at < bytes.size() ? static_cast<unsigned char>(bytes[at]) : 0U);
        }
        const std::size_t count = std::min<std::size_t>(bytes.size() - index, 3) + 1;
        for (std::size_t place = 0; place < 4; ++place)
            text += place < count ? cDigits[group >> (18 - 6 * place) & 63U] : '=';
    }
    return text;
}

// Throws std::invalid_argument.
std::string FromBase64(std::string_view text) {
    std::string bytes;
    std::uint32_t group = 0;
    unsigned int bits = 0;
    while (!text.empty() && text.back() == '=')
        text.remove_suffix(1);
    for (const char digit : text) {
        const std::size_t value = cDigits.find(digit);
        if (value == std::string_view::npos)
            throw std::invalid_argument("it is not base64");
        group = group << 6U | static_cast<std::uint32_t>(value);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            bytes += static_cast<char>(group >> bits & 0xffU);
        }
    }
    return bytes;
}

bool IsUtf8(const std::string& text) {
    try {
        static_cast<void>(TJson(text).dump());
        return true;
    } catch (const TJson::type_error&) {
        return false;
    }
}

// The fields of one task, each read with a message that names it.
class CTaskReader {
public:
    CTaskReader(const TJson& content, std::size_t index)
        : json(content), place(fmt::format("task {}", index + 1)) {
        if (!json.is_object())
            Fail("is not an object");
    }

    void Name(const std::string& name) { place += fmt::format(" (\"{}\")", name); }

    std::string Text(const char* field, bool isNeeded) const {
        const auto found = json.find(field);
        if (found == json.end()) {
            if (isNeeded)
                Fail(fmt::format("has no \"{}\"", field));
            return "";
        }
        if (found->is_string())
            return found->get<std::string>();
        const auto base64 = found->is_object() ? found->find("base64") : found->end();
        if (!found->is_object() || base64 == found->end() || !base64->is_string())
            Fail(fmt::format("has a \"{}\" that is no text", field));
        try {
            return FromBase64(base64->get<std::string>());
        } catch (const std::invalid_argument& error) {
            Fail(fmt::format("has a \"{}\" that cannot be read: {}", field, error.what()));
        }
    }

    template <typename Number>
    Number Whole(const char* field, bool isNeeded) const {
        const auto found = json.find(field);
        if (found == json.end()) {
            if (isNeeded)
                Fail(fmt::format("has no \"{}\"", field));
            return 0;
        }
        if (found->is_number_integer()) {
            const auto value = found->get<std::int64_t>();
            if (std::in_range<Number>(value) &&
                (!found->is_number_unsigned() || found->get<std::uint64_t>() <= INT64_MAX))
                return static_cast<Number>(value);
        }
        Fail(
            fmt::format("has a \"{}\" that is no whole number in range: {}", field, found->dump()));
    }

    bool Flag(const char* field) const {
        const auto found = json.find(field);
        if (found == json.end())
            return false;
        if (!found->is_boolean())
            Fail(fmt::format("has a \"{}\" that is neither true nor false", field));
        return found->get<bool>();
    }

private:
    [[noreturn]] void Fail(const std::string& what) const {
        throw CError(EError::cRefused, fmt::format("cannot import: {} {}", place, what));
    }

    const TJson& json;
    std::string place;
};

TTime TimeOf(std::int64_t seconds) {
    return TTime(std::chrono::seconds(seconds));
}

TImported ReadTask(const TJson& content, std::size_t index) {
    CTaskReader reader(content, index);
    TImported imported;
    TTaskEntry& task = imported.task;
    task.name = reader.Text("name", true);
    reader.Name(task.name);
    task.next = TimeOf(reader.Whole<std::int64_t>("next", true));
    task.last = TimeOf(reader.Whole<std::int64_t>("last", false));
    task.period = reader.Whole<std::uint32_t>("period", false);
    task.program = reader.Text("program", true);
    task.parameter = reader.Text("parameter", false);
    task.paused = reader.Flag("paused");
    imported.realProgram = reader.Text("real_program", false);
    return imported;
}

}  // namespace

TJson JsonOfText(const std::string& text) {
    if (IsUtf8(text))
        return text;
    return {{"base64", ToBase64(text)}};
}

TJson JsonOfTask(const TTaskEntry& task) {
    return {{"name", JsonOfText(task.name)},
            {"next", task.next.time_since_epoch().count()},
            {"last", task.last.time_since_epoch().count()},
            {"period", task.period},
            {"program", JsonOfText(task.program)},
            {"parameter", JsonOfText(task.parameter)},
            {"paused", task.paused}};
}

TJson JsonOfLast(TTime time) {
    return time == TTime() ? TJson() : TJson(FormatIsoTime(time));
}

std::string Document(const TJson& content) {
    TJson document = {{"version", 1}};
    document.update(content);
    return document.dump(2) + '\n';
}

std::vector<TImported> ReadTasks(const std::string& text) {
    TJson document;
    try {
        document = TJson::parse(text);
    } catch (const TJson::parse_error& error) {
        throw CError(EError::cRefused,
                     fmt::format("cannot import: this is not JSON: {}", error.what()));
    }
    const bool isObject = document.is_object();
    if (!isObject || document.value("version", TJson()) != 1)
        throw CError(EError::cRefused,
                     "cannot import: the document has no \"version\" of 1; import what "
                     "vxsched export has written");
    const auto tasks = document.find("tasks");
    if (tasks == document.end() || !tasks->is_array())
        throw CError(EError::cRefused, "cannot import: the document has no list \"tasks\"");
    std::vector<TImported> imported;
    for (std::size_t index = 0; index < tasks->size(); ++index)
        imported.push_back(ReadTask((*tasks)[index], index));
    return imported;
}

}  // namespace vxsched
