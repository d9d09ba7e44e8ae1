// write_entries table|crontab COUNT: writes the entries of a benchmark to standard output, as a
// task file or as a crontab. The tasks are those of the other benchmarks; a crontab has their
// programs and parameters, a line each, due on the first of January.

#include <cstdio>
#include <cstdlib>
#include <string>

#include "bench/Tasks.h"

static std::string LinesOfCrontab(std::size_t count) {
    std::string lines;
    for (std::size_t index = 0; index < count; ++index) {
        TTask task;
        Fill(task, index);
        lines += std::to_string(index % 60) + ' ' + std::to_string(index / 60 % 24) + " 1 1 * " +
                 task.program + ' ' + task.parameters + '\n';
    }
    return lines;
}

int main(int argc, char** argv) {
    const std::string format = argc == 3 ? argv[1] : "";
    if (format != "table" && format != "crontab") {
        std::fputs("usage: write_entries table|crontab COUNT\n", stderr);
        return 2;
    }
    const auto count = static_cast<std::size_t>(std::atol(argv[2]));
    const std::string bytes = format == "table" ? BytesOfTable(count) : LinesOfCrontab(count);
    return std::fwrite(bytes.data(), 1, bytes.size(), stdout) == bytes.size() &&
                   std::fflush(stdout) == 0
               ? 0
               : 1;
}
