#include "base/CShownStream.h"

#include <algorithm>
#include <utility>

#include "base/DisplayText.h"

namespace vxsched {

static bool IsContinuation(char byte) {
    return (static_cast<unsigned char>(byte) & 0xc0U) == 0x80U;
}

// The bytes at the end of `bytes` that more may make a character of UTF-8.
static std::size_t IncompleteEnd(std::string_view bytes) {
    std::size_t count = 0;
    while (count < std::min<std::size_t>(bytes.size(), 3)) {
        ++count;
        const auto byte = static_cast<unsigned char>(bytes[bytes.size() - count]);
        if (IsContinuation(static_cast<char>(byte)))
            continue;
        const std::size_t length = byte >= 0xf0 ? 4 : byte >= 0xe0 ? 3 : byte >= 0xc0 ? 2 : 1;
        return count < length ? count : 0;
    }
    return 0;
}

static void AppendLines(std::string_view bytes, std::string& to) {
    while (!bytes.empty()) {
        const std::size_t end = std::min(bytes.find_first_of("\n\t"), bytes.size());
        AppendShown(bytes.substr(0, end), to);
        to += bytes.substr(end, 1);
        bytes.remove_prefix(std::min(end + 1, bytes.size()));
    }
}

std::string CShownStream::Add(std::string_view bytes) {
    const std::string all = incomplete.append(bytes);
    const std::size_t end = all.size() - IncompleteEnd(all);
    incomplete = all.substr(end);
    std::string shown;
    AppendLines(std::string_view(all).substr(0, end), shown);
    return shown;
}

std::string CShownStream::End() {
    return Show(std::exchange(incomplete, "")).string;
}

}  // namespace vxsched
