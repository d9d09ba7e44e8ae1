#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

#include "store/CDecoder.h"

namespace vxsched {

// A task in the bytes of a damaged table.
struct TFoundTask {
    TTaskView task;
    std::size_t begin;  // its offset
    std::size_t end;    // the offset after it
};

// Finds the first plausible task at `offset` or after it, as Salvage() states what that is. Takes
// time in proportion to the bytes, whatever they are.
std::optional<TFoundTask> FindTask(std::string_view bytes, std::size_t offset);

// Whether it was decoded from zeros: after a power failure a file may have zeros in place of what
// was written last.
bool IsBlank(const TTaskView& task);

TTaskEntry EntryOf(const TTaskView& task);

}  // namespace vxsched
