#pragma once

#include <gtest/gtest.h>
#include <vxsched/Store.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>

#include "Process.h"
#include "Recorder.h"
#include "TableFile.h"

// A store of the client library in the directory of the test, with a directory for its table.
class ClientStore : public testing::Test {
protected:
    ClientStore() { std::filesystem::create_directory("files"); }

    static vxsched::TTime In(std::chrono::seconds time) { return vxsched::Now() + time; }
    static std::int64_t Seconds(vxsched::TTime time) { return time.time_since_epoch().count(); }

    static vxsched::TNewTask Task(const std::string& name,
                                  vxsched::TTime due = In(std::chrono::hours(1)),
                                  std::uint32_t period = 24) {
        return {name, due, period, cRecorder, "a parameter"};
    }

    // Expects that `change` leaves the table file unchanged, byte for byte.
    static void ExpectKept(const std::function<void()>& change) {
        const std::string before = ReadFile(cTable);
        change();
        EXPECT_EQ(ReadFile(cTable), before);
    }

    const vxsched::CStore store{{.lockTimeout = std::chrono::seconds(60)}};
};
