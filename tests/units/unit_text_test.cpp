// Texts as unit files have them.

#include <gtest/gtest.h>

#include <string>

#include "units/UnitText.h"

using vxsched::UnitArgument;
using vxsched::UnitName;
using vxsched::UnitValue;
using vxsched::UnitWord;

TEST(UnitText, ArgumentIsOneWordAndHasNoVariables) {
    EXPECT_EQ(UnitArgument(""), "\"\"");
    EXPECT_EQ(UnitArgument("a b"), "\"a b\"");
    EXPECT_EQ(UnitArgument("$A 50% \"x\" \\n"), "\"$$A 50%% \\\"x\\\" \\\\n\"");
    EXPECT_EQ(UnitArgument("a\nb\x01"), "\"a\\x0ab\\x01\"");
    EXPECT_EQ(UnitArgument("\xc3\xa4"), "\"\xc3\xa4\"");
    EXPECT_EQ(UnitWord("A=$B %"), "\"A=$B %%\"");
    EXPECT_EQ(UnitValue("/srv/50% $x"), "/srv/50%% $x");
}

TEST(UnitText, NameIsDifferentForEachTask) {
    EXPECT_EQ(UnitName("backup"), "vantrix-backup");
    EXPECT_EQ(UnitName("a b/c@d\\x20"), "vantrix-a\\x20b\\x2fc\\x40d\\x5cx20");
    EXPECT_EQ(UnitName("a:b"), "vantrix-a\\x3ab") << "systemd-analyze reads PATH:ALIAS";
    EXPECT_EQ(UnitName("\xc3\xa4"), "vantrix-\\xc3\\xa4");
    EXPECT_EQ(UnitName(std::string(239, 'a')).size(), 247U);
    EXPECT_EQ(UnitName(std::string(240, 'a')), "");
}
