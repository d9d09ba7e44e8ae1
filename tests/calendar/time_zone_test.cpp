// The wall time of zones: equal to that of the C library, and which files are accepted.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include "calendar/CTimeZone.h"

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "CalendarError.h"
#include "Process.h"

using namespace vxsched;
using std::chrono::seconds;
using std::chrono::sys_seconds;
using testing::HasSubstr;
namespace fs = std::filesystem;

static const std::string cZones = "/usr/share/zoneinfo/";

// The names of all zones and of their links, as tzdata lists them.
static std::vector<std::string> AllZones() {
    std::vector<std::string> zones;
    std::ifstream list(cZones + "tzdata.zi");
    for (std::string kind, first, second; list >> kind; list.ignore(10'000, '\n')) {
        if (kind == "Z" && list >> first)
            zones.push_back(first);
        else if (kind == "L" && list >> first >> second)
            zones.push_back(second);
    }
    EXPECT_GT(zones.size(), 400U);
    return zones;
}

static long OffsetOfLibc(std::time_t time) {
    std::tm calendar{};
    return localtime_r(&time, &calendar)->tm_gmtoff;
}

// Expects the zone to be what TZ sets for the C library: from `begin` to 2200, at times that are no
// multiple of a day, and around each change.
static void ExpectThatOfTheCLibrary(const CTimeZone& zone, const std::string& variable,
                                    sys_seconds begin) {
    setenv("TZ", variable.c_str(), 1);
    tzset();
    const auto expectSame = [&](sys_seconds time) {
        ASSERT_EQ(zone.PeriodAt(time).offset.count(), OffsetOfLibc(time.time_since_epoch().count()))
            << variable << " at " << time.time_since_epoch().count();
    };
    constexpr sys_seconds cEnd(seconds(7'258'118'400));
    for (sys_seconds time = begin; time < cEnd; time += seconds(30'000'001))
        expectSame(time);
    for (sys_seconds time = begin; time < cEnd;) {
        const CTimeZone::TPeriod period = zone.PeriodAt(time);
        EXPECT_LE(period.begin, time);
        EXPECT_GT(period.end, time);
        if (period.end == sys_seconds::max())
            break;
        expectSame(period.end - seconds(1));
        expectSame(period.end);
        time = period.end;
    }
}

TEST(TimeZone, IsThatOfTheCLibrary) {
    const sys_seconds year1900(seconds(-2'208'988'800));
    for (const std::string& name : AllZones()) {
        ExpectThatOfTheCLibrary(CTimeZone::Named(name), ':' + name, year1900);
        if (testing::Test::HasFailure())
            break;
    }
}

TEST(TimeZone, TheCallersZoneHasNoPartInIt) {
    setenv("TZ", "America/New_York", 1);
    tzset();
    EXPECT_EQ(CTimeZone::Named("Europe/Berlin").PeriodAt(sys_seconds()).offset, seconds(3600));
    EXPECT_EQ(CTimeZone::OfMachine("none").PeriodAt(sys_seconds()).offset, seconds(0));
}

TEST(TimeZone, NameThatIsNoZoneIsRefused) {
    EXPECT_EQ(CalendarErrorOf([] { CTimeZone::Named("Europe/Atlantis"); }),
              "cannot use the zone \"Europe/Atlantis\": No such file or directory; a zone is named "
              "by its place below /usr/share/zoneinfo/, as Europe/Berlin");
    for (const std::string& name :
         {std::string(), std::string("/etc/localtime"), std::string("../zoneinfo/UTC"),
          std::string("Europe"), std::string("tzdata.zi"), std::string("Europe/Berlin\n"),
          std::string("UTC\0", 4), std::string(10'000, 'x'), std::string("\x1b[31m"),
          std::string("EST5EDT,M3.2.0,M11.1.0")}) {
        const std::string message = CalendarErrorOf([&] { CTimeZone::Named(name); });
        EXPECT_LT(message.size(), 600U);
        EXPECT_EQ(message.find('\x1b'), std::string::npos);
    }
}

TEST(TimeZone, OneThatCountsLeapSecondsIsRefused) {
    if (fs::exists(cZones + "right/UTC")) {
        EXPECT_THAT(CalendarErrorOf([] { CTimeZone::Named("right/UTC"); }),
                    HasSubstr("it counts leap seconds"));
    }
}

TEST(TimeZone, MachinesZoneIsALink) {
    fs::create_symlink(cZones + "Europe/Berlin", "localtime");
    EXPECT_EQ(CTimeZone::OfMachine("localtime").Name(), "Europe/Berlin");
    fs::create_symlink("../usr/share/zoneinfo/Etc/UTC", "relative");
    fs::create_directories("usr/share/zoneinfo/Etc");
    fs::copy_file(cZones + "Etc/UTC", "usr/share/zoneinfo/Etc/UTC");
    fs::create_directory("etc");
    fs::rename("relative", "etc/localtime");
    EXPECT_EQ(CTimeZone::OfMachine("etc/localtime").Name(), "Etc/UTC");
}

TEST(TimeZone, MachinesZoneIsAPlainCopy) {
    fs::copy_file(cZones + "Asia/Tokyo", "localtime");
    const CTimeZone zone = CTimeZone::OfMachine("localtime");
    EXPECT_EQ(zone.Name(), "localtime");
    EXPECT_EQ(zone.PeriodAt(sys_seconds()).offset, seconds(9 * 3600));
}

TEST(TimeZone, MachineWithoutAZoneHasUtc) {
    EXPECT_EQ(CTimeZone::OfMachine("missing").Name(), "UTC");
    fs::create_symlink("/usr/share/zoneinfo/None", "dangling");
    EXPECT_EQ(CTimeZone::OfMachine("dangling").Name(), "UTC");
}

TEST(TimeZone, MachinesZoneThatCannotBeUsedIsRefused) {
    WriteFile("localtime", "");
    EXPECT_EQ(CalendarErrorOf([] { CTimeZone::OfMachine("localtime"); }),
              "cannot use the machine's zone, localtime: its file is cut off");
    WriteFile("localtime", std::string(100, 'x'));
    EXPECT_EQ(CalendarErrorOf([] { CTimeZone::OfMachine("localtime"); }),
              "cannot use the machine's zone, localtime: its file is not that of a zone");
    fs::create_directory("directory");
    EXPECT_EQ(CalendarErrorOf([] { CTimeZone::OfMachine("directory"); }),
              "cannot read the machine's zone, directory: Is a directory");
}

// Cut anywhere, and with any byte changed, a file is refused or read, and nothing else.
TEST(TimeZone, DamagedFileIsRefusedOrRead) {
    for (const char* const name : {"Europe/Berlin", "Etc/UTC"}) {
        const std::string whole = ReadFile(cZones + name);
        for (std::size_t length = 0; length < whole.size(); length += 7) {
            WriteFile("cut", whole.substr(0, length));
            if (length + 100 < whole.size()) {
                EXPECT_NE(CalendarErrorOf([] { CTimeZone::OfMachine("cut"); }), "") << length;
            }
        }
        for (std::size_t place = 0; place < whole.size(); place += 3) {
            std::string changed = whole;
            changed[place] = static_cast<char>(changed[place] ^ 0xff);
            WriteFile("changed", changed);
            try {
                const CTimeZone zone = CTimeZone::OfMachine("changed");
                for (long time = -5'000'000'000; time < 9'000'000'000; time += 500'000'000) {
                    EXPECT_LE(std::chrono::abs(zone.PeriodAt(sys_seconds(seconds(time))).offset),
                              std::chrono::hours(26));
                }
            } catch (const CCalendarError&) {
                // Refused.
            }
        }
    }
}

// A zone without listed changes, of which the rule is all there is.
static std::string ZoneOfRule(const std::string& rule) {
    const std::string header = std::string("TZif2") + std::string(15, '\0');
    const auto counts = [](char types, char characters) {
        std::string all(24, '\0');
        all[19] = types;
        all[23] = characters;
        return all;
    };
    const std::string type = std::string(6, '\0');
    return header + counts(1, 1) + type + std::string(1, '\0') + header + counts(1, 1) + type +
           std::string(1, '\0') + '\n' + rule + '\n';
}

TEST(TimeZone, RulesForFutureYearsAreThoseOfTheCLibrary) {
    for (const char* const rule :
         {"CET-1CEST,M3.5.0,M10.5.0/3", "UTC0", "<-02>2<-01>,M3.5.0/-1,M10.5.0/0",
          "EET-2EEST,M3.4.4/50,M10.4.4/50", "IST-1GMT0,M10.5.0,M3.5.0/1",
          "<+1030>-10:30<+11>-11,M10.1.0,M4.1.0", "AAA3BBB,J60/0,J300/24",
          "AAA3BBB,59/1:30,299/2:15:30", "NZST-12NZDT,M9.5.0,M4.1.0/3",
          "<+00>0<+02>-2,M3.5.0/1,M10.5.0/3"}) {
        WriteFile("rule", ZoneOfRule(rule));
        // The C library applies a rule from 1970 on.
        ExpectThatOfTheCLibrary(CTimeZone::OfMachine("rule"), rule, sys_seconds());
    }
}

// How a zone file says that a zone has summer time all year. The C library loses a few hours of it.
TEST(TimeZone, RuleMayHaveNoWinter) {
    WriteFile("rule", ZoneOfRule("XXX3EDT4,0/0,J365/23"));
    const CTimeZone zone = CTimeZone::OfMachine("rule");
    for (long time = 0; time < 7'000'000'000; time += 36'000)
        ASSERT_EQ(zone.PeriodAt(sys_seconds(seconds(time))).offset, seconds(-4 * 3600)) << time;
}

TEST(TimeZone, WrongRuleIsRefused) {
    for (const char* const rule :
         {"X", "5", "<+01", "CET-", "CET-25", "CET-1:60", "CET-1CEST", "CET-1CEST,M3.5.0",
          "CET-1CEST,M13.5.0,M10.5.0", "CET-1CEST,M3.6.0,M10.5.0", "CET-1CEST,M3.5.7,M10.5.0",
          "CET-1CEST,J0,J1", "CET-1CEST,366,1", "CET-1CEST,1/168,1", "CET-1CEST,1,1x",
          "CET-1CEST,M3.5.0,M10.5.0/3,", "<>1", "A99999999999999999999"}) {
        WriteFile("rule", ZoneOfRule(rule));
        EXPECT_THAT(CalendarErrorOf([] { CTimeZone::OfMachine("rule"); }),
                    HasSubstr("its rule for future years cannot be read"))
            << rule;
    }
}
