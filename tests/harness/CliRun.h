#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <ctime>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "Cli.h"
#include "HostProgram.h"
#include "Process.h"
#include "TableFile.h"
#include "runs/OutputFiles.h"

using TJson = nlohmann::json;

// Runs of a task, in the directory of the test, and what the history has of them.
class CliRun : public Cli {
protected:
    // The table has one task, "job", whose program is that script. Processes of the same program
    // and parameter that other tests run would count as the task's, so the path is this test's own.
    static void WriteJob(const std::string& script) {
        WriteFile("script", script);
        WriteTable({Job()});
    }
    static TRow Job() {
        return {"job",     std::time(nullptr) + cHour,          0, 24,
                "/bin/sh", std::filesystem::absolute("script"), 0};
    }

    static std::vector<TJson> Records() {
        std::vector<TJson> records;
        for (const std::string& line :
             std::filesystem::exists(cHistory) ? Lines(cHistory) : TStrings())
            records.push_back(TJson::parse(line));
        return records;
    }
    static TJson LastRecord() {
        const std::vector<TJson> records = Records();
        EXPECT_FALSE(records.empty());
        return records.empty() ? TJson::parse("{}") : records.back();
    }

    static void ExpectOnlyRunOf(const std::string& task) {
        ASSERT_EQ(Records().size(), 1U);
        const TJson record = LastRecord();
        EXPECT_TRUE(record.at("name") == task);
        EXPECT_EQ(record.at("status"), 0);
        EXPECT_EQ(record.at("output"), OutputPathOf(task, record.at("run")));
        EXPECT_TRUE(std::filesystem::exists(record.at("output")));
    }

    static pid_t ReadPid(const char* file) {
        WaitUntil([&] { return !ReadFileOrNothing(file).empty(); });
        return std::stoi(ReadFileOrNothing(file));
    }

private:
    using TStrings = std::vector<std::string>;
    static std::string ReadFileOrNothing(const char* file) {
        const std::string content = std::filesystem::exists(file) ? ReadFile(file) : "";
        return content.ends_with('\n') ? content : "";
    }
};

// With a host and without one.
class CliRunEitherWay : public CliRun, public testing::WithParamInterface<bool> {
protected:
    // To be called once the table is written.
    void StartHost() {
        if (GetParam())
            host = std::make_unique<CHost>();
    }
    ~CliRunEitherWay() override {
        if (host) {
            EXPECT_EQ(host->Stop(), 0) << host->Output();
        }
    }

    std::unique_ptr<CHost> host;
};

// The names of the two ways.
inline std::string LauncherOf(const testing::TestParamInfo<bool>& way) {
    return way.param ? "AHost" : "TheCaller";
}
