#include "calendar/ParseCron.h"

#include <fmt/format.h>

#include <algorithm>
#include <optional>
#include <utility>
#include <vector>

#include "base/DisplayText.h"
#include "calendar/CCalendarError.h"
#include "calendar/CNeverComes.h"

namespace vxsched {

namespace {

// A list of all minutes has 169 characters.
constexpr std::size_t cLongest = 1000;

constexpr std::string_view cBlanks = " \t";

constexpr std::pair<std::string_view, std::string_view> cNicknames[] = {
    {"@hourly", "0 * * * *"},   {"@daily", "0 0 * * *"},   {"@midnight", "0 0 * * *"},
    {"@weekly", "0 0 * * 0"},   {"@monthly", "0 0 1 * *"}, {"@yearly", "0 0 1 1 *"},
    {"@annually", "0 0 1 1 *"},
};

template <typename Error = CCalendarError>
[[noreturn]] void Refuse(std::string_view text, std::string_view reason) {
    throw Error(fmt::format("cannot read the expression \"{}\": {}", ShowBeginning(text), reason));
}

// Locale or not, only ASCII letters have a lower case here.
std::string InLowerCase(std::string_view text) {
    std::string lower(text);
    for (char& character : lower) {
        if (character >= 'A' && character <= 'Z')
            character = static_cast<char>(character - 'A' + 'a');
    }
    return lower;
}

std::vector<std::string_view> Split(std::string_view text, std::string_view separators) {
    std::vector<std::string_view> parts;
    for (std::size_t begin = 0; begin <= text.size();) {
        const std::size_t end = std::min(text.find_first_of(separators, begin), text.size());
        parts.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return parts;
}

std::vector<std::string_view> Words(std::string_view text) {
    std::vector<std::string_view> words = Split(text, cBlanks);
    std::erase(words, "");
    return words;
}

// Reads one field of an expression.
class CFieldReader {
public:
    // `fieldText` is in lower case, the others are as they were typed.
    CFieldReader(std::string_view wholeText, std::string_view fieldTyped,
                 std::string_view fieldText, ECronField whichField)
        : whole(wholeText),
          typed(fieldTyped),
          text(fieldText),
          which(whichField),
          range(RangeOf(whichField)) {}

    TCronField Read() {
        field.isWild = text.front() == '*';
        for (const std::string_view item : Split(text, ","))
            ReadItem(item);
        // 7 is another name of Sunday.
        if (which == ECronField::cWeekday && field.Has(7))
            field.values = (field.values | 1U) & 0x7fU;
        return field;
    }

private:
    template <typename Error = CCalendarError>
    [[noreturn]] void Fail(std::string_view reason) const {
        Refuse<Error>(whole,
                      fmt::format("the {} \"{}\" {}; allowed is {}, a list of these (A,B), a range "
                                  "(A-B), *, and a step after a range or * (A-B/C)",
                                  range.name, ShowBeginning(typed), reason, range.allowed));
    }

    void ReadItem(std::string_view item) {
        if (item.empty())
            Fail("has an empty item");
        const std::size_t slash = item.find('/');
        const std::string_view values = item.substr(0, slash);
        if (which == ECronField::cDay && values == "l") {
            if (slash != std::string_view::npos)
                Fail("has a step after L");
            field.isLastDay = true;
            return;
        }
        unsigned low = range.low;
        unsigned high = range.high;
        const std::size_t hyphen = values.find('-');
        if (values != "*") {
            low = Value(values.substr(0, hyphen));
            high = hyphen == std::string_view::npos ? low : Value(values.substr(hyphen + 1));
        }
        const bool isSpan = values == "*" || hyphen != std::string_view::npos;
        const unsigned step =
            slash == std::string_view::npos ? 1 : Step(values, isSpan, item.substr(slash + 1));
        if (low > high)
            Fail<CNeverComes>(fmt::format("has a range whose end is before its beginning{}",
                                          which == ECronField::cWeekday && high == 0
                                              ? ", where Sunday as an end is written as 7"
                                              : ""));
        for (unsigned value = low; value <= high; value += step)
            field.values |= std::uint64_t{1} << value;
    }

    unsigned Step(std::string_view values, bool isSpan, std::string_view digits) const {
        if (!isSpan)
            Fail(fmt::format("has a step after a single value; write {}-{}/{}",
                             ShowBeginning(values), range.high, ShowBeginning(digits)));
        const unsigned step = Number(digits).value_or(0);
        if (step == 0)
            Fail("has a step that is not a number from 1 on");
        return step;
    }

    // A number, or nothing if it is none. One that is too large for any use stays so.
    static std::optional<unsigned> Number(std::string_view digits) {
        constexpr unsigned cTooLarge = 10'000;
        unsigned number = 0;
        for (const char digit : digits) {
            if (digit < '0' || digit > '9')
                return {};
            number = std::min(10 * number + static_cast<unsigned>(digit - '0'), cTooLarge);
        }
        return digits.empty() ? std::nullopt : std::optional(number);
    }

    unsigned Value(std::string_view word) const {
        if (const std::optional<unsigned> number = Number(word)) {
            if (*number < range.low || *number > range.high)
                Fail(fmt::format("has {}, which is out of range", ShowBeginning(word)));
            return *number;
        }
        const std::size_t place =
            word.size() == 3 ? range.names.find(word) : std::string_view::npos;
        if (place == std::string_view::npos || place % 3 != 0)
            Fail(word.empty()
                     ? "lacks a value"
                     : fmt::format("has \"{}\", which cannot be read", ShowBeginning(word)));
        return range.low + static_cast<unsigned>(place / 3);
    }

    std::string_view whole;
    std::string_view typed;
    std::string_view text;
    ECronField which;
    const TCronRange& range;
    TCronField field;
};

[[noreturn]] void RefuseNickname(std::string_view text) {
    std::string names;
    for (const auto& [name, meaning] : cNicknames)
        names.append(name).append(", ");
    Refuse(text, fmt::format("there is no such name; allowed are {}@reboot", names));
}

[[noreturn]] void RefuseCount(std::string_view text, std::size_t count) {
    const char* note = "";
    if (count == 6)
        note = "; cron has neither seconds nor years, and the command is no part of the expression";
    Refuse(text, fmt::format("it has {} field{}, not five: minute, hour, day of the month, month, "
                             "day of the week{}",
                             count, count == 1 ? "" : "s", note));
}

}  // namespace

CCronExpression ParseCron(std::string_view text) {
    if (text.size() > cLongest)
        Refuse(text, fmt::format("it is longer than {} characters", cLongest));
    const std::string lower = InLowerCase(text);
    std::vector<std::string_view> words = Words(lower);
    std::vector<std::string_view> typed = Words(text);
    if (words.size() == 1 && words[0].front() == '@') {
        if (words[0] == "@reboot")
            return {};
        const auto* const found =
            std::find_if(std::begin(cNicknames), std::end(cNicknames),
                         [&](const auto& one) { return one.first == words[0]; });
        if (found == std::end(cNicknames))
            RefuseNickname(text);
        words = typed = Words(found->second);
    }
    if (words.size() != cCronFields)
        RefuseCount(text, words.size());
    CCronExpression::TFields fields;
    for (std::size_t index = 0; index < cCronFields; ++index)
        fields[index] =
            CFieldReader(text, typed[index], words[index], static_cast<ECronField>(index)).Read();
    const CCronExpression expression(fields);
    if (!expression.EverComes())
        Refuse<CNeverComes>(text,
                            fmt::format("it never comes: no month of \"{}\" has a day of \"{}\"",
                                        ShowBeginning(typed[3]), ShowBeginning(typed[2])));
    return expression;
}

}  // namespace vxsched
