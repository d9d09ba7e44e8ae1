#pragma once

#include <map>
#include <string>

#include "crontab/ReadCrontab.h"

namespace vxsched {

// Writes a crontab that ReadCrontab() reads as the jobs that were added. The value "" of MAILTO has cron
// write to nobody; without it, cron writes what a job prints to its user.
class CCrontabWriter {
public:
    // Adds a job; its line is not looked at. A variable that an earlier job has and this one has not is
    // unset in its command. Returns why it cannot be written, and adds nothing then; empty if it was.
    std::string Add(const TCrontabJob& job);

    // Adds a job that cron does not launch: as a comment. The same otherwise.
    std::string AddPaused(const TCrontabJob& job);

    const std::string& Text() const { return text; }

private:
    std::string AddLine(const TCrontabJob& job, const char* begin);

    std::string text;
    std::map<std::string, std::string> environment;  // at the end of the text
};

}  // namespace vxsched
