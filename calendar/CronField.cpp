#include "calendar/CronField.h"

#include <fmt/format.h>

#include <array>
#include <bit>

namespace vxsched {

namespace {

constexpr std::array<TCronRange, cCronFields> cRanges = {{
    {"minute", 0, 59, "", "0 to 59"},
    {"hour", 0, 23, "", "0 to 23"},
    {"day of the month", 1, 31, "", "1 to 31, or L for the last day"},
    {"month", 1, 12, "janfebmaraprmayjunjulaugsepoctnovdec", "1 to 12, or jan to dec"},
    {"day of the week", 0, 7, "sunmontuewedthufrisat",
     "0 to 7 (0 and 7 are Sunday), or sun to sat"},
}};

constexpr unsigned cSaturday = 6;

// The values from `low` to `high`, each `step` apart.
std::uint64_t Steps(unsigned low, unsigned high, unsigned step) {
    std::uint64_t values = 0;
    for (unsigned value = low; value <= high; value += step)
        values |= std::uint64_t{1} << value;
    return values;
}

unsigned Lowest(std::uint64_t values) {
    return static_cast<unsigned>(std::countr_zero(values));
}

unsigned Highest(std::uint64_t values) {
    return 63U - static_cast<unsigned>(std::countl_zero(values));
}

// The highest value that is not another name of the lowest.
unsigned Last(ECronField which) {
    return which == ECronField::cWeekday ? cSaturday : RangeOf(which).high;
}

void Append(std::string_view item, std::string& list) {
    list.append(list.empty() ? "" : ",").append(item);
}

// Values one after the other as a range, from three on.
void AppendRuns(std::uint64_t values, std::string& list) {
    while (values != 0) {
        const unsigned first = Lowest(values);
        unsigned last = first;
        while ((values >> (last + 1) & 1U) != 0)
            ++last;
        if (last < first + 2)
            last = first;
        Append(last == first ? std::to_string(first) : fmt::format("{}-{}", first, last), list);
        values &= ~Steps(first, last, 1);
    }
}

// The step of a field that begins with *: the smallest whose values are all selected.
unsigned WildStep(const TCronField& field, ECronField which) {
    unsigned step = 1;
    while ((Steps(RangeOf(which).low, Last(which), step) & ~field.values) != 0)
        ++step;
    return step;
}

// A range with a step, if at least three values are that far apart and are all there are.
std::string SteppedRange(std::uint64_t values) {
    if (std::popcount(values) < 3)
        return "";
    const unsigned first = Lowest(values);
    const unsigned step = Lowest(values & (values - 1)) - first;
    const unsigned last = Highest(values);
    return step > 1 && values == Steps(first, last, step)
               ? fmt::format("{}-{}/{}", first, last, step)
               : "";
}

}  // namespace

const TCronRange& RangeOf(ECronField field) {
    return cRanges[static_cast<std::size_t>(field)];
}

bool IsFull(const TCronField& field, ECronField which) {
    return field.values == Steps(RangeOf(which).low, Last(which), 1);
}

std::string Normalised(const TCronField& field, ECronField which) {
    std::string list;
    std::uint64_t values = field.values;
    if (field.isWild) {
        const unsigned step = WildStep(field, which);
        list = step == 1 ? "*" : fmt::format("*/{}", step);
        values &= ~Steps(RangeOf(which).low, Last(which), step);
    } else {
        // A weekend is not torn apart: 5-7, where 0,5,6 would be the same.
        if (which == ECronField::cWeekday && !IsFull(field, which) && field.Has(0) &&
            field.Has(cSaturday))
            values = (values & ~std::uint64_t{1}) | std::uint64_t{1} << 7U;
        list = SteppedRange(values);
        if (!list.empty())
            values = 0;
    }
    AppendRuns(values, list);
    if (field.isLastDay)
        Append("L", list);
    return list;
}

}  // namespace vxsched
