// calendar: what a cron expression means and when it launches, without any store.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "Cli.h"
#include "Tool.h"

namespace fs = std::filesystem;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

class CliCalendar : public Cli {
protected:
    CliCalendar() { fs::remove("files"); }

    static void ExpectUsageError(const std::string& message,
                                 const std::vector<std::string>& arguments) {
        const TToolRun run = RunTool(arguments);
        EXPECT_EQ(run.status, 2);
        EXPECT_THAT(run.error, StartsWith("vxsched: "));
        EXPECT_THAT(run.error, HasSubstr(message));
        EXPECT_LT(run.error.size(), 1000U);
        EXPECT_EQ(run.output, "");
    }
};

}  // namespace

TEST_F(CliCalendar, NeedsNoStoreAndMakesNone) {
    const std::vector<std::string> arguments = {"calendar", "@daily"};
    EXPECT_THAT(Output(arguments), HasSubstr("at 00:00 every day"));
    EXPECT_TRUE(fs::is_empty("."));
    EXPECT_THAT(Output({"--directory", "/nowhere", "calendar", "@daily"}), HasSubstr("TIME"));
}

TEST_F(CliCalendar, LaunchesAreAfterTheGivenTime) {
    const auto launches = [](const std::string& from) {
        return nlohmann::json::parse(Output({"calendar", "30 14 * * *", "--zone", "UTC", "--from",
                                             from, "--count", "2", "--json"}))["launches"];
    };
    EXPECT_EQ(launches("2026-11-21 14:29:59Z"), (nlohmann::json{cNow, cNow + cDay}));
    EXPECT_EQ(launches("2026-11-21 14:30Z"), (nlohmann::json{cNow + cDay, cNow + 2 * cDay}));
}

TEST_F(CliCalendar, TheCallersZoneIsForTimesThatAreTypedOnly) {
    const std::vector<std::string> arguments = {"calendar", "0 2 * * *", "--from",
                                                "2026-11-21 14:30Z"};
    const std::string before = Output(arguments);
    setenv("TZ", "Asia/Tokyo", 1);
    EXPECT_EQ(Output(arguments), before);
    EXPECT_THAT(Output({"calendar", "* * * * *", "--zone", "UTC", "--from", "2026-11-21 14:30"}),
                HasSubstr("2026-11-21 05:31:00 +00:00"));
}

TEST_F(CliCalendar, ChangeOfTheClockIsSeenInTheOffset) {
    EXPECT_THAT(Output({"calendar", "30 2 * * *", "--zone", "Europe/Berlin", "--from", "2026-03-28",
                        "--count", "3"}),
                EndsWith("TIME                        LEFT\n"
                         "2026-03-28 02:30:00 +01:00  2h 30min\n"
                         "2026-03-29 03:00:00 +02:00  1d 2h\n"
                         "2026-03-30 02:30:00 +02:00  2d 1h\n"));
}

TEST_F(CliCalendar, WhatHasNoLaunchIsSaid) {
    EXPECT_THAT(Output({"calendar", "@reboot"}), HasSubstr("none by the clock"));
    EXPECT_THAT(Output({"calendar", "@yearly", "--zone", "UTC", "--from", "9998-06-01"}),
                HasSubstr("none before the year 9999"));
    EXPECT_EQ(nlohmann::json::parse(Output({"calendar", "@reboot", "--json"}))["launches"],
              nlohmann::json::array());
}

TEST_F(CliCalendar, WrongArgumentIsAUsageError) {
    ExpectUsageError("the minute \"60\"", {"calendar", "60 * * * *"});
    ExpectUsageError("it never comes", {"calendar", "0 0 30 2 *"});
    ExpectUsageError("it has 0 fields", {"calendar", ""});
    ExpectUsageError("longer than 1000", {"calendar", std::string(10'000, '*')});
    ExpectUsageError("\xef\xbf\xbd[31m", {"calendar", "\033[31m * * * *"});
    ExpectUsageError("Europe/Atlantis", {"calendar", "@daily", "--zone", "Europe/Atlantis"});
    ExpectUsageError("it is not a name", {"calendar", "@daily", "--zone", "../etc/passwd"});
    ExpectUsageError("cannot read the time", {"calendar", "@daily", "--from", "never"});
    ExpectUsageError("the years 1 to 9998", {"calendar", "@daily", "--from", "9999-01-01 00:00Z"});
    ExpectUsageError("the years 1 to 9998", {"calendar", "@daily", "--from", "@-99999999999999"});
    ExpectUsageError("--count", {"calendar", "@daily", "--count", "0"});
    ExpectUsageError("expression is required", {"calendar"});
}
