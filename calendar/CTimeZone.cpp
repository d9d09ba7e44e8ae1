#include "calendar/CTimeZone.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "base/DisplayText.h"
#include "base/RegularFile.h"
#include "calendar/CCalendarError.h"

namespace vxsched {

using std::chrono::seconds;
using std::chrono::sys_seconds;

namespace {

constexpr std::string_view cZones = "/usr/share/zoneinfo/";
constexpr std::uint64_t cLargestFile = 1U << 20U;  // the largest of all has 3 KiB
constexpr std::size_t cLongestName = 100;

// The numbers of a zone file (RFC 8536), most significant byte first. Throws at the file's end.
class CZoneFile {
public:
    explicit CZoneFile(std::string_view content) : left(content) {}

    std::string_view Take(std::size_t count) {
        if (count > left.size())
            throw CCalendarError("its file is cut off");
        const std::string_view taken = left.substr(0, count);
        left.remove_prefix(count);
        return taken;
    }

    std::int64_t Number(std::size_t bytes) {
        const std::string_view digits = Take(bytes);
        std::uint64_t number = (static_cast<unsigned char>(digits[0]) & 0x80U) != 0 ? ~0ULL : 0;
        for (const char digit : digits)
            number = number << 8U | static_cast<unsigned char>(digit);
        return static_cast<std::int64_t>(number);
    }

    std::size_t Byte() { return static_cast<unsigned char>(Take(1)[0]); }
    std::size_t Count() { return static_cast<std::uint32_t>(Number(4)); }
    std::string_view Rest() const { return left; }

private:
    std::string_view left;
};

struct TCounts {
    char version;
    std::size_t utc, standard, leaps, times, types, characters;
};

TCounts ReadHeader(CZoneFile& file) {
    if (file.Take(4) != "TZif")
        throw CCalendarError("its file is not that of a zone");
    TCounts counts{};
    counts.version = file.Take(16)[0];
    for (std::size_t* const count : {&counts.utc, &counts.standard, &counts.leaps, &counts.times,
                                     &counts.types, &counts.characters})
        *count = file.Count();
    return counts;
}

// What no name of a zone has: parts that lead elsewhere, and characters that are not in any.
bool IsName(std::string_view name) {
    constexpr char cAllowed[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_+-/";
    return !name.empty() && name.size() <= cLongestName && name.front() != '/' &&
           name.find_first_not_of(cAllowed) == std::string_view::npos;
}

[[noreturn]] void RefuseZone(std::string_view name, std::string_view reason) {
    throw CCalendarError(fmt::format(
        "cannot use the zone \"{}\": {}; a zone is named by its place below {}, as Europe/Berlin",
        Show(name.substr(0, cLongestName)).string, reason, cZones));
}

}  // namespace

// The first block, of 32-bit times, is for readers of old; all files have had a second for decades.
CTimeZone::CTimeZone(std::string zoneName, std::string_view content) : name(std::move(zoneName)) {
    CZoneFile file(content);
    const TCounts old = ReadHeader(file);
    if (old.version < '2')
        throw CCalendarError("its file is of the first version, which ends in 2037");
    file.Take(old.times * 5 + old.types * 6 + old.characters + old.leaps * 8 + old.standard +
              old.utc);
    const TCounts counts = ReadHeader(file);
    if (counts.leaps != 0)
        throw CCalendarError("it counts leap seconds, which the system's clock does not");

    std::vector<std::size_t> types;
    for (CZoneFile times(file.Take(counts.times * 8)); !times.Rest().empty();)
        changes.push_back({sys_seconds(seconds(times.Number(8))), {}});
    for (std::size_t index = 0; index < counts.times; ++index)
        types.push_back(file.Byte());
    std::vector<seconds> offsets;
    for (std::size_t index = 0; index < counts.types; ++index) {
        offsets.emplace_back(file.Number(4));
        file.Take(2);
        if (std::chrono::abs(offsets.back()) > std::chrono::hours(26))
            throw CCalendarError("its file has an offset of more than 26 hours");
    }
    file.Take(counts.characters + counts.standard + counts.utc);
    const auto isEarlier = [](const TChange& one, const TChange& other) {
        return one.time < other.time;
    };
    if (offsets.empty() || !std::is_sorted(changes.begin(), changes.end(), isEarlier))
        throw CCalendarError("its file has no order of changes");
    first = offsets.front();
    for (std::size_t index = 0; index < changes.size(); ++index) {
        if (types[index] >= offsets.size())
            throw CCalendarError("its file names a kind of time that it does not have");
        changes[index].offset = offsets[types[index]];
    }
    file.Take(1);
    if (const std::string_view text = file.Rest().substr(0, file.Rest().find('\n')); !text.empty())
        rule.emplace(text);
}

CTimeZone CTimeZone::Named(std::string_view name) {
    if (!IsName(name))
        RefuseZone(name, "it is not a name");
    std::string content;
    if (!ReadRegularFile(std::string(cZones).append(name), cLargestFile, content))
        RefuseZone(name, std::strerror(errno));
    try {
        return {std::string(name), content};
    } catch (const CCalendarError& error) {
        RefuseZone(name, error.what());
    }
}

CTimeZone CTimeZone::OfMachine(const std::string& path) {
    std::string content;
    if (!ReadRegularFile(path, cLargestFile, content)) {
        if (errno == ENOENT)
            return Utc();
        throw CCalendarError(
            fmt::format("cannot read the machine's zone, {}: {}", path, std::strerror(errno)));
    }
    std::error_code error;
    const std::string target = std::filesystem::read_symlink(path, error).string();
    const std::size_t place = target.find("zoneinfo/");
    std::string name("localtime");
    if (!error && place != std::string::npos && IsName(target.substr(place + 9)))
        name = target.substr(place + 9);
    try {
        return {name, content};
    } catch (const CCalendarError& problem) {
        throw CCalendarError(
            fmt::format("cannot use the machine's zone, {}: {}", path, problem.what()));
    }
}

CTimeZone::TPeriod CTimeZone::PeriodAt(sys_seconds time) const {
    const auto next = std::upper_bound(
        changes.begin(), changes.end(), time,
        [](sys_seconds moment, const TChange& change) { return moment < change.time; });
    if (next == changes.end() && rule) {
        TPeriod period = rule->PeriodAt(time);
        if (!changes.empty())
            period.begin = std::max(period.begin, changes.back().time);
        return period;
    }
    const bool isFirst = next == changes.begin();
    return {isFirst ? sys_seconds::min() : std::prev(next)->time,
            next == changes.end() ? sys_seconds::max() : next->time,
            isFirst ? first : std::prev(next)->offset};
}

}  // namespace vxsched
