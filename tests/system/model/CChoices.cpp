#include "CChoices.h"

using namespace std::string_literals;

static const std::string cNames[] = {"a", "b", "a", "b", "c", "A", "aa", ""};

static const std::string cPrograms[] = {
    "/bin/a",
    "/bin/report.exe",
    "/usr/bin/free",
    "tee.exe",
    "/opt/no such;program",
    "",
    "exe",
    "./x.exe",
    ".exe",
    "/home/.profile",
    "/a.b/tool",
    "ends.",
    "two.dots.exe",
    "C:\\d.d\\t.exe",
    "x/\xff\xfe\x01",
    "/bin/a.e.x",
    "/bin/report",
    "/p/" + std::string(300, 'n'),
};

// Programs whose launch aborts the process, and programs that only a file can hold.
static const std::string cOddPrograms[] = {
    "script.sh",       "C.EXE",  "a.exe2",         "/bin/zero\0.exe"s,
    "/bin/zero.\0sh"s, "\0exe"s, "/bin/z.exe\0e"s,
};

static const std::string cParameters[] = {"", "text", "-full -quiet", "\"'$(a);|", "\xc3\xa4\n"};

static constexpr std::uint32_t cPeriods[] = {
    0, 0, 0, 1, 1, 1, 2, 5, 24, 168,
};
static constexpr std::uint32_t cOddPeriods[] = {
    1193046,    1193047,    0x10000000, 0x10000001, 0x7FFFFFFF,
    0x80000000, 0x80000001, 0xFFFFFFFF, 0xF0000000,
};

static constexpr std::int64_t cAround[] = {
    0,  0,   -1,   1,    2,    -2,    3,          10,          -100,   100,
    60, -60, 3600, 3598, 3601, -3600, -3 * 3600L, -10 * 3600L, 86'400, -86'400,
};
static constexpr std::int64_t cOddTimes[] = {
    0, -1, 1, INT64_MIN, INT64_MAX, INT64_MIN + 10, INT64_MAX - 10, 1L << 31, 1L << 32,
};

static constexpr std::uint32_t cPauses[] = {0, 0, 0, 1, 0, 0, 0, 7, 0, 0xFFFFFFFF};

CChoices::CChoices(std::span<const TRecord>& records, const CModel& fitting)
    : record(records.front()), more(records), model(fitting) {
    more = more.subspan(1);
}

std::size_t CChoices::Below(std::size_t count) {
    return (taken < record.size() ? record[taken++] : std::uint8_t{0}) % count;
}

TOptionalString CChoices::Name() {
    const std::size_t choice = Below(256);
    if (choice == 255)
        return {};
    if (choice == 254)
        return std::string(300, 'n');
    if (choice % 3 != 0 && !model.Table().empty())
        return model.Table()[choice % model.Table().size()].name;
    return cNames[choice / 3 % std::size(cNames)];
}

std::int64_t CChoices::Time() {
    const std::size_t choice = Below(256);
    if (choice % 8 == 7)
        return cOddTimes[choice / 8 % std::size(cOddTimes)];
    return model.Clock() + cAround[choice % std::size(cAround)];
}

std::uint32_t CChoices::Period() {
    const std::size_t choice = Below(256);
    if (choice % 8 == 7)
        return cOddPeriods[choice / 8 % std::size(cOddPeriods)];
    return cPeriods[choice % std::size(cPeriods)];
}

TOptionalString CChoices::Program() {
    const std::size_t choice = Below(256);
    if (choice >= 254)
        return {};
    if (choice >= 245)
        return cOddPrograms[choice % std::size(cOddPrograms)];
    return cPrograms[choice % std::size(cPrograms)];
}

TOptionalString CChoices::Parameters() {
    const std::size_t choice = Below(256);
    if (choice >= 254)
        return {};
    if (choice == 253)
        return std::string(70'000, 'p');
    return cParameters[choice % std::size(cParameters)];
}

TRow CChoices::Row() {
    TRow row;
    row.name = Below(16) == 15 ? "a\0b"s : Of(cNames);
    row.next = Time();
    row.last = Time();
    row.period = Period();
    row.program = Program().value_or("\0"s);
    row.parameters = Parameters().value_or("te\0xt"s);
    row.paused = Of(cPauses);
    return row;
}

TRows CChoices::Rows(std::size_t count) {
    TRows rows;
    for (; count > 0 && !more.empty(); --count)
        rows.push_back(CChoices(more, model).Row());
    return rows;
}
