// Crontabs: whatever is read, each line is a job, wrong or neither, and a command is written as it is
// read.

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "Require.h"
#include "calendar/ParseCron.h"
#include "crontab/CrontabCommand.h"
#include "crontab/CrontabName.h"
#include "crontab/ReadCrontab.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace vxsched;
    if (size == 0)
        return 0;
    const std::string_view text(reinterpret_cast<const char*>(data + 1), size - 1);
    const TCrontab crontab = ReadCrontab(
        text, (data[0] & 1U) != 0, (data[0] & 2U) != 0 ? EDialect::cCronie : EDialect::cDebian);
    std::size_t latest = 0;
    for (const TCrontabJob& job : crontab.jobs) {
        Require(job.line > latest, "the lines of jobs ascend");
        latest = job.line;
        ParseCron(job.schedule);
        Require(!NameOf(job).empty(), "each job has a name");
        const TCrontabCommand command{job.command, job.input};
        if (const auto written = WriteCrontabCommand(command))
            Require(ReadCrontabCommand(*written) == command, "a command is written as it is read");
    }
    for (const TCrontabNote& note : crontab.wrong)
        Require(note.line >= 1 && !note.text.empty(), "a wrong line has a number and a reason");
    return 0;
}
