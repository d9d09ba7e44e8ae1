// One field of a cron expression: which values it may have, and which of them are selected.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace vxsched {

enum class ECronField : std::uint8_t { cMinute, cHour, cDay, cMonth, cWeekday };
inline constexpr std::size_t cCronFields = 5;

// What may be written in a field.
struct TCronRange {
    std::string_view name;  // of the field, in messages
    unsigned low;
    unsigned high;             // 7 for the weekday, where 0 and 7 are Sunday
    std::string_view names;    // of three letters, one after the other, from `low` on; or empty
    std::string_view allowed;  // in words
};
const TCronRange& RangeOf(ECronField field);

struct TCronField {
    std::uint64_t values = 0;  // a bit for each; of the weekday, 0 alone is Sunday
    bool isWild = false;       // it begins with *, which cron treats unlike a range of all values
    bool isLastDay = false;    // the last day of the month is selected as well

    bool Has(unsigned value) const { return (values >> value & 1U) != 0; }
    bool operator==(const TCronField&) const = default;
};

// A field that selects all values.
bool IsFull(const TCronField& field, ECronField which);

// The shortest usual way to write the field. Parsing it gives the same field.
std::string Normalised(const TCronField& field, ECronField which);

}  // namespace vxsched
