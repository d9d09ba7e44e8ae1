#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vxsched {

// A job of a crontab.
struct TCrontabJob {
    std::size_t line = 0;
    std::string schedule = {};                            // as ParseCron() reads it
    std::string zone = {};                                // of that; empty: the machine's
    std::string user = {};                                // of a system crontab; else empty
    std::string command = {};                             // for the shell
    std::optional<std::string> input = {};                // what the command gets to read
    std::map<std::string, std::string> environment = {};  // what stands above the job
    std::string comment = {};                             // right above it, without the #
};

// What there is to say about a line, for a person.
struct TCrontabNote {
    std::size_t line;
    std::string text;
};

struct TCrontab {
    std::vector<TCrontabJob> jobs;
    // Lines that cannot be kept. Of a file with a wrong line cron runs nothing.
    std::vector<TCrontabNote> wrong;
    // Lines that cron accepts, and that are surely not meant so.
    std::vector<TCrontabNote> warnings;
};

// Debian's cron, or cronie, which launches the jobs below a line CRON_TZ=ZONE by that zone.
enum class EDialect { cDebian, cCronie };

// Reads a crontab as Debian's cron does: one of a user or, if it has a column of users, one of the
// system. Of jobs that cron would never launch, or whose command is empty, there is only a warning.
// Looks at the database of users, and for programs of their names. Never fails.
TCrontab ReadCrontab(std::string_view text, bool hasUsers, EDialect dialect = EDialect::cDebian);

}  // namespace vxsched
