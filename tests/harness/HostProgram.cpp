#include "HostProgram.h"

#include <CEvent.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "AddinLibrary.h"
#include "StoreSemaphore.h"
#include "TableFile.h"

CHost::CHost(const std::vector<std::string>& command) : CProgram(command) {
    EXPECT_TRUE(WaitForOutput(" as process ")) << Output();
    // The first tick is over: it would take a client's signal for the file it has just read.
    WaitUntil(WorkerIsIdle);
}

int CHost::Stop(int signal) {
    Kill(signal);
    return Wait();
}

std::size_t CHost::CountInOutput(const std::string& message) const {
    std::size_t count = 0;
    for (std::size_t position = 0;
         (position = Output().find(message, position)) != std::string::npos; ++position)
        ++count;
    return count;
}

std::string CHost::Status(const std::string& field) const {
    std::istringstream lines(ReadFile("/proc/" + std::to_string(Id()) + "/status"));
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with(field + ":\t"))
            return line.substr(field.size() + 2);
    }
    return "";
}

int CHost::CountZombies() const {
    int count = 0;
    // Processes come and go while the directory is read.
    std::error_code error;
    for (std::filesystem::directory_iterator entry("/proc", error);
         !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
        const std::string name = entry->path().filename().string();
        if (name.find_first_not_of("0123456789") != std::string::npos)
            continue;
        const std::string stat = ReadFile("/proc/" + name + "/stat");
        if (stat.find(") Z " + std::to_string(Id()) + ' ') != std::string::npos)
            ++count;
    }
    return count;
}

std::vector<std::string> HostWith(const std::vector<std::string>& options) {
    std::vector<std::string> command{HOST_PROGRAM, "--directory", "."};
    command.insert(command.end(), options.begin(), options.end());
    return command;
}

std::vector<std::string> HostThatPauses() {
    return HostWith({"--launch-pause", "2"});
}

void WakeWorker() {
    CEvent("libVantrixScheduler.so", false).SetEvent();
}

void ReplaceTable(const TRows& rows) {
    WriteTable(rows);
    CEvent("Global\\schTaskChanged-69BD-4438-B706-07D710576930", true).SetEvent();
}

RUN_AGAIN(CreateDueTask) {
    const CAddinLibrary library;
    library.Create(arguments.at(0).c_str(), std::time(nullptr), 0, arguments.at(1).c_str(),
                   arguments.at(2).c_str());
    WakeWorker();
    _exit(0);
}

void CreateDue(const std::string& name, const std::string& program, const std::string& parameter) {
    CProgram client(ThisProgramAs("CreateDueTask", {name, program, parameter}));
    EXPECT_EQ(client.Wait(), 0) << client.Output();
}

void WaitForTheTicksEnd() {
    WaitUntil([] { return ReadFile(cTable) == BytesOf({}); });
}

bool LogHolds(const std::string& path, const std::string& message) {
    return ReadFile(path).find(message) != std::string::npos;
}

std::vector<std::string> Lines(const std::string& path) {
    WaitUntil([&] { return std::filesystem::exists(path); });
    std::ifstream file(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);)
        lines.push_back(line);
    return lines;
}
