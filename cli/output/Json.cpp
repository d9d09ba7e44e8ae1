#include "cli/output/Json.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>
#include <string_view>

#include <vxsched/Error.h>
#include "base/DisplayText.h"
#include "base/IsoTime.h"
#include "cli/time/TimeFormat.h"
#include "runs/ParseJson.h"
#include "store/MakeError.h"

namespace vxsched {

using TJson = nlohmann::ordered_json;

namespace {

constexpr std::string_view cDigits =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

std::string ToBase64(std::string_view bytes) {
    std::string encoded;
    for (std::size_t index = 0; index < bytes.size(); index += 3) {
        std::uint32_t group = 0;
        for (std::size_t place = 0; place < 3; ++place) {
            const std::size_t at = index + place;
            group = group << 8U | (at < bytes.size() ? static_cast<unsigned char>(bytes[at]) : 0U);
        }
        const std::size_t count = std::min<std::size_t>(bytes.size() - index, 3) + 1;
        for (std::size_t place = 0; place < 4; ++place)
            encoded += place < count ? cDigits[group >> (18 - 6 * place) & 63U] : '=';
    }
    return encoded;
}

// Throws std::invalid_argument.
std::string FromBase64(std::string_view encoded) {
    std::string bytes;
    std::uint32_t group = 0;
    unsigned int bits = 0;
    while (!encoded.empty() && encoded.back() == '=')
        encoded.remove_suffix(1);
    for (const char digit : encoded) {
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

// Reads the fields of one task. Throws CError (cRefused) with the task and the field in its
// message. `content` must outlive the reader.
class CTaskReader {
public:
    CTaskReader(const TJson& content, std::size_t index)
        : json(content), place(fmt::format("task {}", index + 1)) {
        if (!json.is_object())
            Fail("is not an object");
    }

    // Puts the task's name into the messages of later failures.
    void SetName(const std::string& name) { place += fmt::format(" (\"{}\")", name); }

    std::string String(const char* field, bool isNeeded) const {
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
            Fail(fmt::format("has a \"{}\" that is not a string", field));
        try {
            return FromBase64(base64->get<std::string>());
        } catch (const std::invalid_argument& error) {
            Fail(fmt::format("has a \"{}\" that cannot be decoded: {}", field, error.what()));
        }
    }

    template <typename Number>
    Number Integer(const char* field, bool isNeeded) const {
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
        Fail(fmt::format("has a \"{}\" that is not an integer in range: {}", field, found->dump()));
    }

    TTime Time(const char* field, bool isNeeded) const {
        const TTime time(std::chrono::seconds(Integer<std::int64_t>(field, isNeeded)));
        if (!CalendarOf(time, EZone::cUtc))
            Fail(fmt::format("has a \"{}\" that is in no year of a calendar: {}", field,
                             time.time_since_epoch().count()));
        return time;
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
    [[noreturn]] void Fail(const std::string& problem) const {
        throw MakeError(EError::cRefused, "{} {}", place, problem);
    }

    const TJson& json;
    std::string place;
};

// What is wrong with `input` and where. `byte` is the number of bytes that the parser has read: the
// last of them is the first that it could not accept, or is past the end of the input.
std::string DescribeParseError(std::string_view input, std::size_t byte) {
    const std::size_t offset = std::min(byte > 0 ? byte - 1 : 0, input.size());
    const std::string_view before = input.substr(0, offset);
    const std::ptrdiff_t line = 1 + std::count(before.begin(), before.end(), '\n');
    const std::size_t column = offset - (before.rfind('\n') + 1) + 1;  // the first line starts at 0
    std::string problem = "the input ends too early";
    if (offset < input.size()) {
        const auto found = static_cast<unsigned char>(input[offset]);
        problem = found > 0x20 && found < 0x7f
                      ? fmt::format("unexpected '{}'", static_cast<char>(found))
                      : fmt::format("unexpected byte 0x{:02x}", found);
    }
    return fmt::format("line {}, column {}: {}", line, column, problem);
}

TImported ReadTask(const TJson& content, std::size_t index) {
    CTaskReader reader(content, index);
    TImported imported;
    TTaskEntry& task = imported.task;
    task.name = reader.String("name", true);
    reader.SetName(task.name);
    task.next = reader.Time("next", true);
    task.last = reader.Time("last", false);
    task.period = reader.Integer<std::uint32_t>("period", false);
    task.program = reader.String("program", true);
    task.parameter = reader.String("parameter", false);
    task.paused = reader.Flag("paused");
    imported.realProgram = reader.String("real_program", false);
    return imported;
}

}  // namespace

TJson JsonOfString(const std::string& bytes) {
    if (IsUtf8(bytes))
        return bytes;
    return {{"base64", ToBase64(bytes)}};
}

TJson JsonOfTask(const TTaskEntry& task) {
    return {{"name", JsonOfString(task.name)},
            {"next", task.next.time_since_epoch().count()},
            {"last", task.last.time_since_epoch().count()},
            {"period", task.period},
            {"program", JsonOfString(task.program)},
            {"parameter", JsonOfString(task.parameter)},
            {"paused", task.paused}};
}

TJson JsonOfLast(TTime time) {
    return time == TTime() ? TJson() : TJson(FormatIsoTime(time));
}

std::string Document(const TJson& content) {
    TJson document = {{"version", 1}};
    document.update(content);
    return EscapeControls(document.dump(2)) + '\n';
}

std::vector<TImported> ReadTasks(const std::string& input) {
    TJson document;
    try {
        document = ParseJson(input);
    } catch (const TJson::parse_error& error) {
        throw MakeError(EError::cRefused,
                        "it is not valid JSON: {}; expected a document as "
                        "vxsched export writes it",
                        DescribeParseError(input, error.byte));
    } catch (const CJsonTooDeep& error) {
        throw MakeError(EError::cRefused, "it is not an export: {}", error.what());
    } catch (const TJson::out_of_range&) {
        throw CError(EError::cRefused, "it has a number that is too large");
    }
    const bool isObject = document.is_object();
    if (!isObject || document.value("version", TJson()) != 1)
        throw CError(EError::cRefused,
                     "it has no \"version\" of 1; expected a document as "
                     "vxsched export writes it");
    const auto tasks = document.find("tasks");
    if (tasks == document.end() || !tasks->is_array())
        throw CError(EError::cRefused, "it has no list \"tasks\"");
    std::vector<TImported> imported;
    for (std::size_t index = 0; index < tasks->size(); ++index)
        imported.push_back(ReadTask((*tasks)[index], index));
    return imported;
}

}  // namespace vxsched
