#pragma once

#include <fmt/format.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include <vxsched/Error.h>
#include <vxsched/Table.h>
#include "store/EntryFields.h"
#include "store/MakeError.h"

namespace vxsched {

// The bytes of a task with empty strings: three lengths, two times, a period and a flag.
// docs/table-file.md describes the format.
constexpr std::size_t cSmallestTask = 3 * 4 + 2 * 8 + 4 + 4;

// A task within the bytes of a table, of which its strings are parts.
struct TTaskView {
    std::string_view name;
    TTime next;
    TTime last;
    std::uint32_t period = 0;
    std::string_view program;
    std::string_view parameter;
    std::uint32_t flag = 0;  // any value but 0 means paused
};

// Decodes the bytes of a table from front to back; they stay the caller's and must outlive the
// decoder and what it returns. After a field that is cut off, HasFailed() is true and all else that
// is taken is empty. For one thread at a time.
class CDecoder {
public:
    explicit CDecoder(std::string_view table, std::size_t startOffset = 0)
        : bytes(table), offset(startOffset) {}

    std::size_t Offset() const { return offset; }
    std::size_t Left() const { return bytes.size() - offset; }

    // `what` is for the message of a failure.
    template <typename Value>
    Value Take(const char* what) {
        Value value{};
        if (failure)
            return value;
        if (sizeof value > Left()) {
            failure = {offset, what, {}};
            return value;
        }
        std::memcpy(&value, bytes.data() + offset, sizeof value);
        offset += sizeof value;
        return value;
    }

    TTaskView TakeTask() {
        TTaskView task;
        TransferFields(task, task.flag, TFieldTaker{*this});
        return task;
    }

    bool HasFailed() const { return failure.has_value(); }

    // Throws CError (cDamaged) with what is wrong at which offset. To be called after a failure;
    // `task` is the number, from 1, of the task that was taken last; 0 for none.
    [[noreturn]] void ThrowFailure(std::size_t task) const {
        if (!failure->length)
            Damaged(failure->offset, fmt::format("the file ends in {}{}", failure->what, Of(task)));
        Damaged(failure->offset,
                fmt::format("{}{} is {}, but only {} bytes follow it", failure->what, Of(task),
                            *failure->length, bytes.size() - failure->offset - sizeof(TLength)));
    }

    // " of task 1", or an empty string for 0.
    static std::string Of(std::size_t task) {
        return task == 0 ? "" : fmt::format(" of task {}", task);
    }

    [[noreturn]] static void Damaged(std::size_t where, const std::string& what) {
        throw MakeError(EError::cDamaged, "the table is damaged at offset {}: {}", where, what);
    }

private:
    using TLength = std::uint32_t;

    struct TFailure {
        std::size_t offset;
        const char* what;
        std::optional<TLength> length;  // of a string that is longer than the remaining bytes
    };

    // Takes a field as its type demands.
    struct TFieldTaker {
        CDecoder& decoder;

        void operator()(const TField<std::string_view>& field) const {
            field.value = decoder.TakeString(field.what);
        }
        void operator()(const TField<TTime>& field) const {
            field.value = TTime(std::chrono::seconds(decoder.Take<std::int64_t>(field.what)));
        }
        void operator()(const TField<std::uint32_t>& field) const {
            field.value = decoder.Take<std::uint32_t>(field.what);
        }
    };

    // `what` names the length, which comes before the bytes.
    std::string_view TakeString(const char* what) {
        const std::size_t lengthOffset = offset;
        const auto length = Take<TLength>(what);
        if (failure)
            return {};
        if (length > Left()) {
            failure = {lengthOffset, what, length};
            return {};
        }
        offset += length;
        return bytes.substr(offset - length, length);
    }

    std::string_view bytes;
    std::size_t offset;
    std::optional<TFailure> failure;
};

}  // namespace vxsched
