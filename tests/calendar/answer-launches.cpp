// Answers questions for the next launch: tests/calendar/compare_with_croniter.py asks them. Each line of the
// standard input is a zone, a time in seconds and an expression, with a tab between them; each line
// of the output is a time, "none", or why the expression is refused.

#include <charconv>
#include <iostream>
#include <map>
#include <string>

#include "calendar/CCalendarError.h"
#include "calendar/NextLaunch.h"
#include "calendar/ParseCron.h"

using namespace vxsched;

static const CTimeZone& ZoneOf(const std::string& name) {
    static std::map<std::string, CTimeZone> zones;
    const auto found = zones.find(name);
    return found != zones.end() ? found->second
                                : zones.emplace(name, CTimeZone::Named(name)).first->second;
}

static std::string Answer(const std::string& question) {
    const std::size_t first = question.find('\t');
    const std::size_t second = question.find('\t', first + 1);
    std::int64_t after = 0;
    std::from_chars(&question[first + 1], &question[second], after);
    try {
        const std::optional<std::chrono::sys_seconds> launch =
            NextLaunch(ParseCron(question.substr(second + 1)), ZoneOf(question.substr(0, first)),
                       std::chrono::sys_seconds(std::chrono::seconds(after)));
        return launch ? std::to_string(launch->time_since_epoch().count()) : "none";
    } catch (const CCalendarError& error) {
        return error.what();
    }
}

int main() {
    for (std::string question; std::getline(std::cin, question);)
        std::cout << Answer(question) << '\n';
}
