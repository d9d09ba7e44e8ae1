#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include <vxsched/Error.h>
#include <vxsched/Table.h>
#include "store/EntryFields.h"

namespace vxsched {

// The bytes of a task with empty strings: three lengths, two times, a period and a flag.
// docs/table-file.md describes the format.
constexpr std::size_t cSmallestTask = 3 * 4 + 2 * 8 + 4 + 4;

// Decodes the bytes of a table from front to back; they stay the caller's and must outlive the
// decoder. A field that is cut off throws CError (cDamaged) with what is wrong at which offset; the
// decoder is not to be used afterwards. For one thread at a time.
class CDecoder {
public:
    static constexpr std::size_t cNoTask = 0;

    explicit CDecoder(std::string_view table, std::size_t startOffset = 0)
        : bytes(table), offset(startOffset) {}

    std::size_t Offset() const { return offset; }
    std::size_t Left() const { return bytes.size() - offset; }

    // `what` and the number of the task are for the message of an error.
    template <typename Value>
    Value Take(const char* what, std::size_t task = cNoTask) {
        Value value{};
        if (sizeof value > Left())
            Damaged(offset, "the file ends in " + std::string(what) + Of(task));
        std::memcpy(&value, bytes.data() + offset, sizeof value);
        offset += sizeof value;
        return value;
    }

    // The next task. `number`, from 1, is for messages. The pause flag is stored in `flag` as it is
    // in the file: any value but 0 means paused.
    TTaskEntry TakeTask(std::size_t number, std::uint32_t& flag) {
        TTaskEntry task;
        TransferFields(task, flag, TFieldTaker{*this, number});
        task.paused = flag != 0;
        return task;
    }

    // " of task 1", or an empty string for cNoTask.
    static std::string Of(std::size_t task) {
        return task == cNoTask ? "" : " of task " + std::to_string(task);
    }

    [[noreturn]] static void Damaged(std::size_t where, const std::string& what) {
        throw CError(EError::cDamaged,
                     "the table is damaged at offset " + std::to_string(where) + ": " + what);
    }

private:
    // Takes a field as its type demands.
    struct TFieldTaker {
        CDecoder& decoder;
        std::size_t task;

        void operator()(const TField<std::string>& field) const {
            field.value = decoder.TakeString(field.what, task);
        }
        void operator()(const TField<TTime>& field) const {
            field.value = TTime(std::chrono::seconds(decoder.Take<std::int64_t>(field.what, task)));
        }
        void operator()(const TField<std::uint32_t>& field) const {
            field.value = decoder.Take<std::uint32_t>(field.what, task);
        }
    };

    // `what` names the length, which comes before the bytes.
    std::string TakeString(const char* what, std::size_t task) {
        const std::size_t lengthOffset = offset;
        const auto length = Take<std::uint32_t>(what, task);
        if (length > Left())
            Damaged(lengthOffset, std::string(what) + Of(task) + " is " + std::to_string(length) +
                                      ", but only " + std::to_string(Left()) + " bytes follow it");
        std::string string(bytes.substr(offset, length));
        offset += length;
        return string;
    }

    std::string_view bytes;
    std::size_t offset;
};

}  // namespace vxsched
