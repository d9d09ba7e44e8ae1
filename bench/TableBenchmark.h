#pragma once

#include <benchmark/benchmark.h>

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

// One implementation of one operation on a table of that many tasks, in the working directory.
using TTableBenchmark = std::function<void(benchmark::State& state, std::size_t tasks)>;

inline const std::vector<std::size_t> cTableSizes = {10, 100, 1'000, 10'000, 100'000};

// Registers it for every place and every number of tasks, as "table/OPERATION/WAY/PLACE/TASKS".
// Returns true, for the initialiser of a variable at namespace scope.
bool RegisterTableBenchmark(const std::string& operation, const std::string& way,
                            const TTableBenchmark& body,
                            const std::vector<std::size_t>& sizes = cTableSizes);

// Sizes besides cTableSizes that a target needs.
std::vector<std::size_t> TableSizesAnd(std::size_t size);

// Fails the benchmark with that message unless the condition holds.
void Expect(benchmark::State& state, bool holds, const char* expectation);
