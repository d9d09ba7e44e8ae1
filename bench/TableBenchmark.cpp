#include "bench/TableBenchmark.h"

#include <malloc.h>

#include <algorithm>
#include <exception>

#include "bench/Places.h"

bool RegisterTableBenchmark(const std::string& operation, const std::string& way,
                            const TTableBenchmark& body, const std::vector<std::size_t>& sizes) {
    for (const std::string place : cPlaces) {
        for (const std::size_t tasks : sizes) {
            const std::string name =
                "table/" + operation + '/' + way + '/' + place + '/' + std::to_string(tasks);
            benchmark::RegisterBenchmark(name.c_str(), [=](benchmark::State& state) {
                try {
                    // Release the heap that earlier benchmarks left.
                    malloc_trim(0);
                    EnterPlace(place);
                    body(state, tasks);
                } catch (const std::exception& failure) {
                    state.SkipWithError(failure.what());
                }
            });
        }
    }
    return true;
}

std::vector<std::size_t> TableSizesAnd(std::size_t size) {
    std::vector<std::size_t> sizes = cTableSizes;
    sizes.insert(std::upper_bound(sizes.begin(), sizes.end(), size), size);
    return sizes;
}

void Expect(benchmark::State& state, bool holds, const char* expectation) {
    if (!holds)
        state.SkipWithError(expectation);
}
