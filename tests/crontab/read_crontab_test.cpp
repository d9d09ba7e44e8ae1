// Crontabs as Debian's cron reads them. Its own crontab -n checks the sample where it is installed.

#include "crontab/ReadCrontab.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "ForeignStore.h"
#include "Process.h"
#include "crontab/CrontabName.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using vxsched::EDialect;
using vxsched::ReadCrontab;
using vxsched::TCrontab;
using vxsched::TCrontabJob;
using vxsched::TCrontabNote;

namespace {

// Crontabs that cron accepts, and how many tasks become of them.
const std::vector<std::pair<std::string, std::size_t>> cGood = {
    {"", 0},
    {"\n", 0},
    {"# only a comment", 0},
    {"\t # a comment\n \n", 0},
    {"A=b\n", 0},
    {"* * * * * true\n", 1},
    {"  5 4 * * * x\n", 1},
    {"5\t4 * * * \tx\n", 1},
    {"5 *\t*\t*\t* x\n", 1},
    {"00005 * * * * x\n", 1},
    {"*/5,3 * * * * x\n", 1},
    {"1-5/2,7 * * * * x\n", 1},
    {"5-5 * * * * x\n", 1},
    {"*/61 * * * * x\n", 1},
    {"0-59/60 * * * * x\n", 1},
    {"* * * JAN * x\n", 1},
    {"* * * Jan-mar/2 * x\n", 1},
    {"* * * jan,5 * x\n", 1},
    {"5 4 * * MON-fri x\n", 1},
    {"* * * * sun-mon x\n", 1},
    {"* * * * mon,tue x\n", 1},
    {"* * * * 0-7 x\n", 1},
    {"* * * * 7 x\n", 1},
    {"* * * * 1-5,mon x\n", 1},
    {"5 4 1-31/7 * * x\n", 1},
    {"@daily true\n@midnight x\n@hourly x\n@weekly x\n@monthly x\n@yearly x\n@annually x\n", 7},
    {"@reboot   x\n@daily\tx\n", 2},
    {"1 2 3 4 5 6 x\n", 1},
    {"* * * * * # x\n", 1},
    {"* * * * * x\r\n", 1},
    {"* * * * * true\n# no line end", 1},
    {"A = b c \n'A B' = 'x'\n A=b\nA=b\"c\"\nA=\"b\"   \nA\t=\tc\nMAILTO=\"\"\n* * * * * x\n", 1},
    // Accepted, and never launched, or without a command.
    {"30 2 31 2 * true\n", 0},
    {"5-1 * * * * true\n", 0},
    {"* * * * sat-sun x\n", 0},
    {"@daily\n", 0},
    {"* * * * *\n", 0},
    {"* * * * * \n", 0},
    {"* * * * * %in\n", 0},
    {"=b\n", 0},
};

const std::vector<std::string> cWrong = {
    "* * * * * true",
    "A=b",
    "NAME=\n* * * * * true\n",
    "MAILTO=\"\" # c\n* * * * * true\n",
    "A=\"b\n",
    "A=\"b\" c\n",
    "A='b'x\n",
    "\"A=b\n",
    "A B=c\n",
    "A\tB=c\n",
    "0/5 * * * * true\n",
    "*/0 * * * * true\n",
    "5-10/0 * * * * x\n",
    "*/5a * * * * x\n",
    "5a * * * * x\n",
    "-5 * * * * x\n",
    "60 * * * * x\n",
    "1-99 * * * * x\n",
    "* 24 * * * x\n",
    "* * 0 * * x\n",
    "* * 32 * * x\n",
    "* * L * * x\n",
    "* * * 0 * x\n",
    "* * * 13 * x\n",
    "* * * january * x\n",
    "jan * * * * x\n",
    "* * * * 8 x\n",
    "5 4 * * monday x\n",
    "1,,2 * * * * x\n",
    ",1 * * * * x\n",
    "1, * * * * x\n",
    "~ * * * * x\n",
    "* * * * * * true\n",
    "* * * * * *x\n",
    "@every 5m true\n",
    "@REBOOT x\n",
    "@dailyx y\n",
    "\r\n* * * * * x\r\n",
    "\f\n",
    "\v5 4 * * * x\n",
    "5 4 * * * x\\\n  y\n",
    "5 4 * * ?\n x\n",
    "* * * * * " + std::string(999, 'x') + "\n",
    "just a line\n",
};

// cron takes the part of a field that it can read, and drops the rest up to the next blank.
const std::vector<std::string> cHalfRead = {"*-5 * * * * x\n", "1-3-5 * * * * x\n",
                                            "*/5-7 * * * * x\n", "* * * * 5#2 x\n",
                                            "** * * * * x\n"};

std::vector<std::size_t> LinesOf(const std::vector<TCrontabNote>& notes) {
    std::vector<std::size_t> lines;
    for (const TCrontabNote& note : notes)
        lines.push_back(note.line);
    return lines;
}

TCrontabJob OnlyJobOf(const std::string& text) {
    const TCrontab crontab = ReadCrontab(text, false);
    EXPECT_THAT(crontab.wrong, IsEmpty()) << text;
    EXPECT_EQ(crontab.jobs.size(), 1U) << text;
    return crontab.jobs.empty() ? TCrontabJob() : crontab.jobs.front();
}

std::string WarningOf(const std::string& text) {
    const TCrontab crontab = ReadCrontab(text, false);
    EXPECT_THAT(crontab.wrong, IsEmpty()) << text;
    EXPECT_EQ(crontab.warnings.size(), 1U) << text;
    return crontab.warnings.empty() ? "" : crontab.warnings.front().text;
}

}  // namespace

TEST(ReadCrontab, TakesWhatCronTakes) {
    for (const auto& [text, count] : cGood) {
        const TCrontab crontab = ReadCrontab(text, false);
        EXPECT_THAT(LinesOf(crontab.wrong), IsEmpty()) << text;
        EXPECT_EQ(crontab.jobs.size(), count) << text;
    }
}

TEST(ReadCrontab, FindsTheLinesThatCronRefuses) {
    for (const std::string& text : cWrong)
        EXPECT_THAT(ReadCrontab(text, false).wrong, testing::SizeIs(testing::Ge(1))) << text;
    for (const std::string& text : cHalfRead)
        EXPECT_THAT(LinesOf(ReadCrontab(text, false).wrong), ElementsAre(1)) << text;
    EXPECT_THAT(
        LinesOf(ReadCrontab("* * * * * a\n\n# c\n61 * * * * b\nA=\n* * * * * c", false).wrong),
        ElementsAre(4, 5, 6));
}

TEST(ReadCrontab, AgreesWithCronsOwnCheck) {
    REQUIRE_SUPERUSER();
    const auto check = [](const std::string& text) {
        WriteFile("tab", text);
        return std::system("crontab -n tab > checked 2>&1");
    };
    for (const auto& [text, count] : cGood)
        EXPECT_EQ(check(text), 0) << text << ReadFile("checked");
    for (const std::string& text : cWrong)
        EXPECT_NE(check(text), 0) << text;
    for (const std::string& text : cHalfRead)
        EXPECT_EQ(check(text), 0) << text;
}

TEST(ReadCrontab, JobHasTheEnvironmentAboveIt) {
    const TCrontab crontab = ReadCrontab(
        "A=1\n* * * * * first\nB = 'x y' \nA=\"2\"\nMAILTO=\"\"\n* * * * * second\nC=3\n", false);
    ASSERT_EQ(crontab.jobs.size(), 2U);
    EXPECT_THAT(crontab.jobs[0].environment, ElementsAre(std::pair("A", "1")));
    EXPECT_THAT(crontab.jobs[1].environment,
                ElementsAre(std::pair("A", "2"), std::pair("B", "x y"), std::pair("MAILTO", "")));
}

TEST(ReadCrontab, LineOfTheSystemHasAUser) {
    const TCrontab crontab =
        ReadCrontab("* * * * * root  a b\n@daily\tnobody c\n* * * * * no-such-user d\n", true);
    ASSERT_EQ(crontab.jobs.size(), 2U);
    EXPECT_EQ(crontab.jobs[0].user, "root");
    EXPECT_EQ(crontab.jobs[0].command, "a b");
    EXPECT_EQ(crontab.jobs[1].user, "nobody");
    EXPECT_THAT(LinesOf(crontab.wrong), ElementsAre(3));
}

TEST(ReadCrontab, WarnsOfWhatIsSurelyNotMeant) {
    EXPECT_THAT(WarningOf("* * * * * a \\\n"), HasSubstr("continues no line"));
    EXPECT_THAT(WarningOf("* * * * * a\r\n"), HasSubstr("carriage return"));
    EXPECT_THAT(WarningOf("* * * * * nobody a\n"), HasSubstr("the name of a user, nobody"));
    EXPECT_THAT(WarningOf("* * * * mon mon-fri a\n"), HasSubstr("a weekday, mon-fri"));
    EXPECT_THAT(WarningOf("* * * * * {{ command }}\n"), HasSubstr("a template"));
    EXPECT_THAT(WarningOf("* * * * * %in\n"), HasSubstr("there is an input and no command"));
    EXPECT_THAT(WarningOf("* * 31 4 * a\n"), HasSubstr("cron never launches it"));
    EXPECT_THAT(WarningOf("5-1 * * * * a\n"), HasSubstr("cron never launches it"));
    EXPECT_THAT(WarningOf("TZ=UTC\n* * * * * a\n"), HasSubstr("does not move the schedule"));
    EXPECT_THAT(ReadCrontab("* * * * * sync -f\n* * * * * /bin/nobody\n", false).warnings,
                IsEmpty());
}

TEST(ReadCrontab, ZoneIsThatOfCronie) {
    const std::string text = "CRON_TZ=Asia/Tokyo\n* * * * * a\n";
    EXPECT_THAT(WarningOf(text), HasSubstr("--dialect cronie"));
    EXPECT_EQ(OnlyJobOf(text).zone, "");
    const TCrontab cronie = ReadCrontab(text, false, EDialect::cCronie);
    ASSERT_EQ(cronie.jobs.size(), 1U);
    EXPECT_EQ(cronie.jobs[0].zone, "Asia/Tokyo");
    EXPECT_THAT(cronie.warnings, IsEmpty());
}

TEST(CrontabName, IsTheCommentAbove) {
    EXPECT_EQ(NameOf(OnlyJobOf("# Nightly backup.\n0 2 * * * /srv/backup\n")), "Nightly backup");
    EXPECT_EQ(NameOf(OnlyJobOf("# Nightly backup\n\n0 2 * * * /srv/backup\n")), "backup");
    EXPECT_EQ(NameOf(OnlyJobOf("# m h dom mon dow command\n0 2 * * * /srv/a\n")), "a");
    EXPECT_EQ(NameOf(OnlyJobOf("#0 1 * * * /srv/old now\n0 2 * * * /srv/a\n")), "a");
    EXPECT_EQ(NameOf(OnlyJobOf("# -----\n0 2 * * * /srv/a\n")), "a");
    EXPECT_EQ(NameOf(OnlyJobOf("# " + std::string(100, 'x') + "\n0 2 * * * a\n")),
              std::string(60, 'x'));
}

TEST(CrontabName, IsElseTheProgram) {
    for (const auto& [command, name] : std::vector<std::pair<std::string, std::string>>{
             {"/usr/bin/rsync -a /a /b", "rsync"},
             {"cd /srv && /usr/bin/php -q cron.php", "cron.php"},
             {"nice -n 19 ionice -c 3 /srv/backup.sh >/dev/null", "backup.sh"},
             {"A=b B=c /srv/tool", "tool"},
             {"[ -x /usr/sbin/tool ] && /usr/sbin/tool", "tool"},
             {"(sleep 5; true)", "sleep"},
             {"bash", "bash"},
             {"-", "job"}})
        EXPECT_EQ(NameOf(OnlyJobOf("* * * * * " + command + "\n")), name) << command;
}

TEST(ReadCrontab, OfManyLinesIsReadAsAWhole) {
    std::string text = "A=b\n";
    for (int line = 0; line < 10'000; ++line)
        text += "# job\n*/5 * * * * /bin/job\n";
    EXPECT_EQ(ReadCrontab(text, false).jobs.size(), 10'000U);
    EXPECT_THAT(LinesOf(ReadCrontab(std::string(1 << 20, 'x') + '\n', false).wrong),
                ElementsAre(1));
    EXPECT_THAT(LinesOf(ReadCrontab(std::string("* * * * * a\0b\n", 14), false).wrong),
                ElementsAre(1));
}
