#include "calendar/CZoneRule.h"

#include <array>

#include "calendar/CCalendarError.h"

namespace vxsched {

using std::chrono::hours;
using std::chrono::seconds;
using std::chrono::sys_seconds;

// Reads the rule character by character.
class CZoneRule::CReader {
public:
    explicit CReader(std::string_view text) : left(text) {}

    bool IsAtEnd() const { return left.empty(); }
    bool IsAt(char wanted) const { return !IsAtEnd() && left.front() == wanted; }

    bool TakeIf(char wanted) {
        if (!IsAt(wanted))
            return false;
        left.remove_prefix(1);
        return true;
    }

    void Expect(bool holds) const {
        if (!holds)
            throw CCalendarError("its rule for future years cannot be read");
    }

    // Letters, or anything between < and >.
    void SkipName() {
        const bool isQuoted = TakeIf('<');
        const std::size_t end = isQuoted ? left.find('>') : left.find_first_of("+-,0123456789");
        Expect(end != 0 && (end != std::string_view::npos || !isQuoted));
        left.remove_prefix(std::min(end, left.size()));
        TakeIf('>');
    }

    unsigned Number(unsigned least, unsigned most) {
        constexpr unsigned cTooLarge = 1000;
        Expect(IsAtDigit());
        unsigned number = 0;
        for (; IsAtDigit(); left.remove_prefix(1))
            number = std::min(10 * number + static_cast<unsigned>(left.front() - '0'), cTooLarge);
        Expect(number >= least && number <= most);
        return number;
    }

    // [+-]hh[:mm[:ss]]
    seconds Time(unsigned mostHours) {
        const int sign = TakeIf('-') ? -1 : 1;
        if (sign > 0)
            TakeIf('+');
        seconds time = hours(Number(0, mostHours));
        if (TakeIf(':'))
            time += std::chrono::minutes(Number(0, 59));
        if (TakeIf(':'))
            time += seconds(Number(0, 59));
        return sign * time;
    }

    // Positive to the west.
    seconds Offset() { return -Time(24); }

    TChange Change() {
        using EDay = TChange::EDay;
        TChange change;
        Expect(TakeIf(','));
        if (TakeIf('M')) {
            change.kind = EDay::cOfMonth;
            change.month = Number(1, 12);
            Expect(TakeIf('.'));
            change.week = Number(1, 5);
            Expect(TakeIf('.'));
            change.day = Number(0, 6);
        } else if (TakeIf('J')) {
            change.kind = EDay::cOfYearWithoutLeapDay;
            change.day = Number(1, 365);
        } else {
            change.day = Number(0, 365);
        }
        change.time = TakeIf('/') ? Time(167) : hours(2);
        return change;
    }

private:
    bool IsAtDigit() const { return !IsAtEnd() && left.front() >= '0' && left.front() <= '9'; }

    std::string_view left;
};

CZoneRule::CZoneRule(std::string_view text) {
    CReader reader(text);
    reader.SkipName();
    standard = reader.Offset();
    hasSummer = !reader.IsAtEnd();
    if (!hasSummer)
        return;
    reader.SkipName();
    summer = reader.IsAt(',') ? standard + hours(1) : reader.Offset();
    toSummer = reader.Change();
    toStandard = reader.Change();
    reader.Expect(reader.IsAtEnd());
}

date::local_seconds CZoneRule::TChange::In(date::year year) const {
    const date::local_days newYear(year / date::January / 1);
    if (kind == EDay::cOfYear)
        return newYear + date::days(day) + time;
    if (kind == EDay::cOfYearWithoutLeapDay)
        return newYear + date::days(day - 1 + (year.is_leap() && day > 59 ? 1 : 0)) + time;
    const date::year_month_weekday inWeek = year / date::month(month) / date::weekday(day)[week];
    const date::year_month_weekday_last last =
        year / date::month(month) / date::weekday(day)[date::last];
    return (week == 5 ? date::local_days(last) : date::local_days(inWeek)) + time;
}

CZoneRule::TPeriod CZoneRule::PeriodAt(sys_seconds time) const {
    if (!hasSummer)
        return {sys_seconds::min(), sys_seconds::max(), standard};
    const auto inUtc = [](date::local_seconds wall, seconds offset) {
        return sys_seconds(wall.time_since_epoch()) - offset;
    };
    const date::year year = date::year_month_day(date::floor<date::days>(time)).year();
    TPeriod period{sys_seconds::min(), sys_seconds::max(), standard};
    // A summer that never ends has its end at the beginning of the next, which is seen last.
    for (int around = -1; around <= 1; ++around) {
        const date::year one = year + date::years(around);
        const std::array<TPeriod, 2> changes = {{{inUtc(toStandard.In(one), summer), {}, standard},
                                                 {inUtc(toSummer.In(one), standard), {}, summer}}};
        for (const TPeriod& change : changes) {
            if (change.begin > time)
                period.end = std::min(period.end, change.begin);
            else if (change.begin >= period.begin)
                period = {change.begin, period.end, change.offset};
        }
    }
    return period;
}

}  // namespace vxsched
