// Fuzzes the line of a job, which any client can put into the table, with any text. A job that is read
// is written and read again, which must give the same.

#include <string_view>

#include "fuzz/Require.h"
#include "jobs/CJobError.h"
#include "jobs/JobLine.h"

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    const std::string_view line(reinterpret_cast<const char*>(data), size);
    try {
        const vxsched::TJob job = vxsched::ReadJobLine(line);
        Require(!vxsched::CommandOf(job).empty(), "a job has no program");
        Require(vxsched::ReadJobLine(vxsched::JobLine(job)) == job,
                "a job differs after it was written and read");
    } catch (const vxsched::CJobError&) {
        // Not a job.
    }
    return 0;
}
