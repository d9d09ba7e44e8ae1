#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include <vxsched/Error.h>
#include <vxsched/Table.h>

namespace vxsched {

// A task takes at least this many bytes: three lengths, two times, a period and a flag.
constexpr std::size_t cSmallestTask = 3 * 4 + 2 * 8 + 4 + 4;

// Takes a table's bytes apart from front to back. Whatever is not whole throws CError
// (cDamaged), which says what is wrong at which offset; the place is then where it was tried.
class CDecoder {
public:
    static constexpr std::size_t cNoTask = 0;

    explicit CDecoder(std::string_view whole, std::size_t start = 0)
        : bytes(whole), offset(start) {}

    std::size_t Offset() const { return offset; }
    std::size_t Left() const { return bytes.size() - offset; }

    // `what` and, behind it, the task's place are for messages.
    template <typename Value>
    Value Take(const char* what, std::size_t task = cNoTask) {
        Value value{};
        if (sizeof value > Left())
            Damaged(offset, "the file ends in " + std::string(what) + Of(task));
        std::memcpy(&value, bytes.data() + offset, sizeof value);
        offset += sizeof value;
        return value;
    }

    // One task, the first of which is number 1. The pause flag as it stands goes to `flag`.
    TTaskEntry TakeTask(std::size_t number, std::uint32_t& flag) {
        TTaskEntry task;
        task.name = TakeText("the length of the name", number);
        task.next = TakeTime("the next start", number);
        task.last = TakeTime("the last start", number);
        task.period = Take<std::uint32_t>("the period", number);
        task.program = TakeText("the length of the program", number);
        task.parameter = TakeText("the length of the parameter", number);
        flag = Take<std::uint32_t>("the pause flag", number);
        task.paused = flag != 0;
        return task;
    }

    // " of task 1", or nothing.
    static std::string Of(std::size_t task) {
        return task == cNoTask ? "" : " of task " + std::to_string(task);
    }

    [[noreturn]] static void Damaged(std::size_t where, const std::string& what) {
        throw CError(EError::cDamaged,
                     "the table is damaged at offset " + std::to_string(where) + ": " + what);
    }

private:
    static constexpr std::string_view cLengthOf = "the length of ";

    TTime TakeTime(const char* what, std::size_t task) {
        return TTime(std::chrono::seconds(Take<std::int64_t>(what, task)));
    }

    // `what` begins with cLengthOf.
    std::string TakeText(const char* what, std::size_t task) {
        const std::size_t start = offset;
        const auto length = Take<std::uint32_t>(what, task);
        if (length > Left())
            Damaged(start, std::string(what).substr(cLengthOf.size()) + Of(task) +
                               " is said to have " + std::to_string(length) + " bytes, " +
                               std::to_string(Left()) + " are left");
        std::string text(bytes.substr(offset, length));
        offset += length;
        return text;
    }

    std::string_view bytes;
    std::size_t offset;
};

}  // namespace vxsched
