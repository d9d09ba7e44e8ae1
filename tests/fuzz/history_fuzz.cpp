// Fuzzes the reader of the run history with any bytes as the file. Each record that is read is
// written and read again, which must give the same record, and is formatted as for a person.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <string_view>

#include "base/CDescriptor.h"
#include "cli/output/RunFormat.h"
#include "fuzz/Require.h"
#include "runs/HistoryReader.h"
#include "runs/RunRecord.h"
#include "store/Layout.h"

using vxsched::THistory;

// scripts/fuzz runs this in an empty working directory in memory.
extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    Require(mkdir("files", 0700) == 0, "no directory");
    return 0;
}

static void Write(const unsigned char* data, std::size_t size) {
    const CDescriptor file(open(vxsched::cHistoryFile, O_WRONLY | O_CREAT | O_TRUNC, 0600));
    Require(write(file.Get(), data, size) == static_cast<ssize_t>(size), "cannot write");
}

// The record without the fields that a line has only for other outcomes.
static TRunRecord AsWritten(TRunRecord record) {
    const bool hasEnded =
        record.outcome == TRunRecord::cExited || record.outcome == TRunRecord::cKilled;
    if (!hasEnded) {
        record.number = 0;
        record.usage = {};
    }
    if (record.outcome != TRunRecord::cNotStarted)
        record.error.clear();
    return record;
}

static void RequireSameAgain(const TRunRecord& record) {
    const std::string line = JsonLine(record);
    Require(line.find('\n') == line.size() - 1, "a record is not one line");
    const std::optional<TRunRecord> again = ReadJsonLine(line);
    Require(again.has_value(), "a written record cannot be read");
    Require(*again == AsWritten(record), "a record differs after it was written and read");
}

static void Format(const TRunRecord& record) {
    vxsched::FormatOutcome(record);
    vxsched::FormatMoment(record.started, EZone::cLocal);
    vxsched::FormatMoment(record.due, EZone::cUtc);
    if (const auto taken = vxsched::TimeTaken(record))
        RequireShown(vxsched::FormatSpan(*taken));
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    Write(data, size);
    const THistory history = vxsched::ReadHistory(".", {});
    const auto lines = static_cast<std::size_t>(std::count(data, data + size, '\n'));
    Require(history.runs.size() + history.problems.size() == lines,
            "a line is neither a record nor a problem");
    for (const TRunRecord& record : history.runs) {
        RequireSameAgain(record);
        Format(record);
    }
    return 0;
}
