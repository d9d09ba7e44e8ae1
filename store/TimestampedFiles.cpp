#include "store/TimestampedFiles.h"

#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <optional>
#include <string>
#include <system_error>

namespace vxsched {

namespace fs = std::filesystem;

// Names made here have fewer digits, and larger numbers might overflow when counted up.
static constexpr std::size_t cMostDigits = 18;

template <typename Number>
static bool TakeNumber(std::string_view& string, Number& number) {
    const std::size_t digits = std::min(string.find_first_not_of("0123456789"), string.size());
    if (digits == 0 || digits > cMostDigits)
        return false;
    std::from_chars(string.data(), string.data() + digits, number);
    string.remove_prefix(digits);
    return true;
}

static std::optional<TFileTimestamp> NameIn(std::string_view string) {
    TFileTimestamp name;
    if (!TakeNumber(string, name.time))
        return {};
    if (string.starts_with('-')) {
        string.remove_prefix(1);
        if (!TakeNumber(string, name.number))
            return {};
    }
    return string.empty() ? std::optional(name) : std::nullopt;
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
