#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "client/CClientError.h"
#include "client/Table.h"

namespace vxsched {

// A task takes at least this many bytes: three lengths, two times, a period and a flag.
constexpr std::size_t cSmallestTask = 3 * 4 + 2 * 8 + 4 + 4;

// Takes a table's bytes apart from front to back. Whatever is not whole throws CClientError
// (cDamaged), which says what is wrong at which offset; the place is then where it was tried.
class CDecoder {
public:
    explicit CDecoder(std::string_view whole, std::size_t start = 0)
        : bytes(whole), offset(start) {}

    std::size_t Offset() const { return offset; }
    std::size_t Left() const { return bytes.size() - offset; }

    template <typename Value>
    Value Take(const std::string& what) {
        Value value{};
        Need(sizeof value, what);
        std::memcpy(&value, bytes.data() + offset, sizeof value);
        offset += sizeof value;
        return value;
    }

    std::string TakeText(const std::string& what) {
        const std::size_t start = offset;
        const auto length = Take<std::uint32_t>("the length of " + what);
        if (length > Left())
            Damaged(start, what + " is said to have " + std::to_string(length) + " bytes, " +
                               std::to_string(Left()) + " are left");
        std::string text(bytes.substr(offset, length));
        offset += length;
        return text;
    }

    // One task; `which` is its place for messages. The pause flag as it stands goes to `flag`.
    TTaskEntry TakeTask(const std::string& which, std::uint32_t& flag) {
        TTaskEntry task;
        task.name = TakeText("the name" + which);
        task.next = TakeTime("the next start" + which);
        task.last = TakeTime("the last start" + which);
        task.period = Take<std::uint32_t>("the period" + which);
        task.program = TakeText("the program" + which);
        task.parameter = TakeText("the parameter" + which);
        flag = Take<std::uint32_t>("the pause flag" + which);
        task.paused = flag != 0;
        return task;
    }

    [[noreturn]] static void Damaged(std::size_t where, const std::string& what) {
        throw CClientError(EError::cDamaged,
                           "the table is damaged at offset " + std::to_string(where) + ": " + what);
    }

private:
    TTime TakeTime(const std::string& what) {
        return TTime(std::chrono::seconds(Take<std::int64_t>(what)));
    }

    void Need(std::size_t size, const std::string& what) const {
        if (size > Left())
            Damaged(offset, "the file ends in " + what);
    }

    std::string_view bytes;
    std::size_t offset;
};

}  // namespace vxsched
