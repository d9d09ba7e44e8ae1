// The cost of truncating the file before it is written: the same bytes are written with and without
// O_TRUNC.

#include <fcntl.h>
#include <unistd.h>

#include "bench/StoreCalls.h"
#include "bench/TableBenchmark.h"
#include "bench/Tasks.h"

static TTableBenchmark Rewrite(int flags) {
    return [=](benchmark::State& state, std::size_t tasks) {
        const std::string bytes = BytesOfTable(tasks);
        WriteTaskFile(tasks);
        for (auto _ : state) {
            const int file = open(cTaskFile, O_RDWR | O_CLOEXEC | flags);
            CheckCall(file != -1, "open");
            const ssize_t count = write(file, bytes.data(), bytes.size());
            CheckCall(count == static_cast<ssize_t>(bytes.size()), "write");
            close(file);
        }
        Expect(state, ContentOfTaskFile() == bytes, "the file is not the table");
    };
}

static const bool gRegistered = RegisterTableBenchmark("rewrite", "truncated", Rewrite(O_TRUNC)) &&
                                RegisterTableBenchmark("rewrite", "in-place", Rewrite(0));
