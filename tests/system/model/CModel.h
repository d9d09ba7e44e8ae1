#pragma once

#include "CSide.h"

// A model of the rules in plain values: what each operation returns and how it changes the store.
// It uses no file, semaphore, clock or code of the library.
//
// An operation that the rules make fatal or endless throws TForbidden and leaves the model
// unusable: try it on a copy.
class CModel final : public CSide {
public:
    struct TForbidden {};

    bool IsScheduled(const char* name) override;
    bool IsTaskRunning(const char* name) override;
    void GetNextExecution(const char* name, long* next) override;
    void GetLastExecuted(const char* name, long* last) override;
    bool GetTaskPeriod(const char* name, unsigned int* period) override;
    void CreateTask(const char* name, long due, unsigned int period, const char* program,
                    const char* parameters) override;
    void DestroyTask(const char* name) override;
    void PauseTask(const char* name) override;
    void ResumeTask(const char* name) override;
    bool SetTaskPeriod(const char* name, unsigned int period) override;
    void ExecuteTaskNow(const char* name, bool force) override;
    void Tick() override;
    void Load() override;
    void Unload() override;
    bool IsLoad() override;
    void Reload() override;
    void Rebuild() override;
    void SetClock(time_t time) override;
    void UseThread(bool second) override;
    void SetSignalled(bool signal) override;
    void PutTable(const TRows& rows, const std::string& trailing) override;
    void PutDamaged(const std::string& bytes) override;
    void PutOther(TPlace::TKind kind) override;
    void CutFile(std::size_t bytes) override;
    void SetRoom(std::optional<std::size_t> bytes) override;
    void SetLaunches(const std::vector<TLaunchOutcome>& launchOutcomes) override;
    void SetListing(const std::optional<std::string>& output) override;
    void SetLogFails(bool fails) override;
    void RemoveSemaphore() override;
    void LoadElsewhere() override;
    TSight Observe() override;

    time_t Clock() const { return clock; }
    const TRows& Table() const { return table; }

private:
    class CHold;
    using TPosition = TRows::iterator;
    enum TThread { cNone, cFirst, cSecond };

    TPosition Find(const char* name);
    bool ReadTable();
    bool BringUpToDate();
    void WriteTable();
    void WriteAndSignal();
    std::optional<std::size_t> Reschedule(TRow& task);
    void Launch(TRow& task);
    void StartUp();
    void Log(const std::string& line);

    TRows list;
    TPlace::TKind place = TPlace::cNoDirectory;
    TRows table;           // of a file that is not damaged
    std::string trailing;  // bytes after that table
    bool damaged = false;
    std::string damage;  // all bytes of a damaged file
    std::optional<std::size_t> room;

    bool signalled = false;
    int semaphore = -1;
    bool attached = false;  // the semaphore is the one that the library opened
    TThread thread = cFirst;
    TThread schedulingThread = cNone;

    time_t clock = 0;
    std::vector<TLaunchOutcome> outcomes = {{}};
    std::size_t launchCount = 0;  // since the outcomes were set
    std::optional<std::string> listing;
    bool logFails = false;
    std::vector<std::string> happened;
};
