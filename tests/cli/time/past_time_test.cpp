// Times that have passed: the values of accepted arguments in several zones, and what is refused.

#include <gtest/gtest.h>
#include "cli/time/PastTime.h"
#include "cli/time/TimeFormat.h"

#include <ostream>
#include <string>

#include "RefusedArgument.h"
#include "SampleTimes.h"

using namespace vxsched;

namespace {

struct TAccepted {
    const char* zone;
    const char* text;
    const char* now;
    const char* time;
};

void PrintTo(const TAccepted& test, std::ostream* stream) {
    *stream << test.zone << ": " << test.text << " at " << test.now;
}

class PastTime : public testing::TestWithParam<TAccepted> {};

class RefusedPastTime : public testing::TestWithParam<TRefused> {};

}  // namespace

TEST_P(PastTime, IsThis) {
    const CZone zone(GetParam().zone);
    EXPECT_EQ(FormatIsoTime(ParsePastTime(GetParam().text, Utc(GetParam().now))), GetParam().time);
}

// 2026-11-21 is a Saturday.
INSTANTIATE_TEST_SUITE_P(
    Forms, PastTime,
    testing::Values(TAccepted{"Europe/Berlin", "2026-11-20 14:30", cNow, "2026-11-20T13:30:00Z"},
                    TAccepted{"Europe/Berlin", "2026-11-20T14:30Z", cNow, "2026-11-20T14:30:00Z"},
                    TAccepted{"Europe/Berlin", " Now ", cNow, cNow},
                    TAccepted{"Europe/Berlin", "@0", cNow, "1970-01-01T00:00:00Z"},
                    TAccepted{"Europe/Berlin", "today", cNow, "2026-11-20T23:00:00Z"},
                    TAccepted{"Europe/Berlin", "today 02:00", cNow, "2026-11-21T01:00:00Z"},
                    TAccepted{"Europe/Berlin", "yesterday", cNow, "2026-11-19T23:00:00Z"},
                    TAccepted{"Europe/Berlin", "Yesterday noon", cNow, "2026-11-20T11:00:00Z"},
                    TAccepted{"UTC", "12:00", cNow, cNow},
                    TAccepted{"UTC", "12:00:01", cNow, "2026-11-20T12:00:01Z"},
                    TAccepted{"UTC", "11:59", cNow, "2026-11-21T11:59:00Z"},
                    TAccepted{"Europe/Berlin", "noon", cNow, "2026-11-21T11:00:00Z"},
                    TAccepted{"Europe/Berlin", "midnight", cNow, "2026-11-20T23:00:00Z"},
                    TAccepted{"UTC", "saturday", cNow, "2026-11-21T00:00:00Z"},
                    TAccepted{"UTC", "saturday 12:00", cNow, cNow},
                    TAccepted{"UTC", "sat 12:01", cNow, "2026-11-14T12:01:00Z"},
                    TAccepted{"UTC", "friday noon", cNow, "2026-11-20T12:00:00Z"},
                    TAccepted{"UTC", "Sun", cNow, "2026-11-15T00:00:00Z"},
                    // It is Sunday in Kathmandu.
                    TAccepted{"Asia/Kathmandu", "sunday", "2026-11-21T19:00:00Z",
                              "2026-11-21T18:15:00Z"},
                    TAccepted{"UTC", "3h ago", cNow, "2026-11-21T09:00:00Z"},
                    TAccepted{"UTC", "90min ago", cNow, "2026-11-21T10:30:00Z"},
                    TAccepted{"UTC", "1d12h AGO", cNow, "2026-11-20T00:00:00Z"},
                    TAccepted{"UTC", "2 weeks  ago ", cNow, "2026-11-07T12:00:00Z"},
                    TAccepted{"UTC", "0s ago", cNow, cNow}));

INSTANTIATE_TEST_SUITE_P(
    ClockChanges, PastTime,
    testing::Values(
        // On 2026-10-25 it was 02:30 at 00:30 and at 01:30 in UTC.
        TAccepted{"Europe/Berlin", "02:30", "2026-10-25T12:00:00Z", "2026-10-25T01:30:00Z"},
        TAccepted{"Europe/Berlin", "02:30", "2026-10-25T01:00:00Z", "2026-10-25T00:30:00Z"},
        TAccepted{"Europe/Berlin", "sunday 02:30", "2026-10-25T12:00:00Z", "2026-10-25T01:30:00Z"},
        // On 2026-03-29 it was never 02:30.
        TAccepted{"Europe/Berlin", "02:30", "2026-03-29T12:00:00Z", "2026-03-28T01:30:00Z"},
        TAccepted{"Europe/Berlin", "sun 02:30", "2026-03-29T12:00:00Z", "2026-03-22T01:30:00Z"},
        // In Havana midnight was set back to 23:00 of a day that had ended.
        TAccepted{"America/Havana", "00:30", "2026-11-01T04:45:00Z", "2026-11-01T04:30:00Z"},
        TAccepted{"America/Havana", "00:30", "2026-11-01T05:15:00Z", "2026-11-01T04:30:00Z"}));

TEST_P(RefusedPastTime, ReportsTheReasonAndTheOffset) {
    const auto error = ErrorOf([] { ParsePastTime(GetParam().text, Utc(cNow)); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->Offset(), GetParam().offset);
    EXPECT_EQ(error->what(), Message("time", GetParam()));
}

static constexpr char cForms[] =
    "expected a time such as 2026-11-21 14:30, 14:30, yesterday 14:30, friday noon, 3h ago or now";

INSTANTIATE_TEST_SUITE_P(
    Arguments, RefusedPastTime,
    testing::Values(
        TRefused{"", 0, cForms}, TRefused{"tomorrow", 0, cForms}, TRefused{"in 3h", 0, cForms},
        TRefused{"+3h", 0, cForms}, TRefused{"-3h", 0, cForms}, TRefused{"ago", 0, cForms},
        TRefused{"3h", 2, "expected \"ago\"; quote a time of several words: \"3h ago\""},
        TRefused{"3h later", 3, "expected \"ago\"; quote a time of several words: \"3h ago\""},
        TRefused{"3 moons ago", 2, "unknown unit \"moons\"; use h, d or w"},
        TRefused{"3h ago too", 7, "unexpected input after the time"},
        TRefused{"99999 weeks 1000000000000s ago", 0, "the time is before the year 1"},
        TRefused{"12:00Z", 5, "a zone is accepted only together with a date"},
        TRefused{"25:00", 0, "the hour must be from 00 to 23"}));
