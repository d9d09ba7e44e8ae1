#include "store/TimestampedFiles.h"

#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <optional>
#include <string>
#include <system_error>

namespace vxsched {

namespace fs = std::filesystem;

// More digits no name of ours has; with one more there is room to count on.
static constexpr std::size_t cMostDigits = 18;

template <typename Number>
static bool TakeNumber(std::string_view& text, Number& number) {
    const std::size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
    if (digits == 0 || digits > cMostDigits)
        return false;
    std::from_chars(text.data(), text.data() + digits, number);
    text.remove_prefix(digits);
    return true;
}

static std::optional<TFileTimestamp> NameIn(std::string_view text) {
    TFileTimestamp name;
    if (!TakeNumber(text, name.time))
        return {};
    if (text.starts_with('-')) {
        text.remove_prefix(1);
        if (!TakeNumber(text, name.number))
            return {};
    }
    return text.empty() ? std::optional(name) : std::nullopt;
}

std::vector<TTimestampedFile> FindTimestamped(const fs::path& directory,
                                              std::string_view beginning) {
    std::vector<TTimestampedFile> kept;
    std::error_code error;
    for (fs::directory_iterator entry(directory, error);
         !error && entry != fs::directory_iterator(); entry.increment(error)) {
        const std::string file = entry->path().filename().string();
        if (!file.starts_with(beginning))
            continue;
        if (const auto name = NameIn(std::string_view(file).substr(beginning.size())))
            kept.push_back({*name, entry->path()});
    }
    std::sort(kept.begin(), kept.end(),
              [](const TTimestampedFile& one, const TTimestampedFile& other) {
                  return one.name < other.name;
              });
    return kept;
}

TFileTimestamp NextTimestamp(const std::vector<TTimestampedFile>& kept, TTime now) {
    const TFileTimestamp name{std::max<std::int64_t>(now.time_since_epoch().count(), 0), 0};
    if (kept.empty() || kept.back().name < name)
        return name;
    return {kept.back().name.time, kept.back().name.number + 1};
}

void RemoveOldest(const fs::path& directory, std::string_view beginning, std::size_t most) {
    const std::vector<TTimestampedFile> kept = FindTimestamped(directory, beginning);
    for (std::size_t index = 0; index + most < kept.size(); ++index)
        unlink(kept[index].path.c_str());
}

}  // namespace vxsched
