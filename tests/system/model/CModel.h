#pragma once

#include "CSide.h"

// The rules as values: what each operation answers and leaves behind. No file, semaphore, clock or
// code of the library is touched.
//
// An operation that the rules make fatal or endless throws TForbidden and leaves the model in a
// state of no use: try it on a copy.
class CModel final : public CSide {
public:
    struct TForbidden {};

    bool IsScheduled(const char* name) override;
    bool IsTaskRunning(const char* name) override;
    void GetNextExecution(const char* name, long* next) override;
    void GetLastExecuted(const char* name, long* last) override;
    bool GetTaskPeriod(const char* name, unsigned int* period) override;
    void CreateTask(const char* name, long start, unsigned int period, const char* program,
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
    void PutTable(const TRows& rows, const std::string& behind) override;
    void PutDamaged(const std::string& bytes) override;
    void PutOther(TPlace::TKind kind) override;
    void CutFile(std::size_t bytes) override;
    void SetRoom(std::optional<std::size_t> bytes) override;
    void SetStarts(const std::vector<TStarting>& behaviours) override;
    void SetListing(const std::optional<std::string>& output) override;
    void SetLogFails(bool fails) override;
    void RemoveSemaphore() override;
    void LoadElsewhere() override;
    TSight Look() override;

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
    std::optional<std::size_t> MoveOn(TRow& task);
    void Start(TRow& task);
    void StartUp();
    void Log(const std::string& line);

    TRows list;
    TPlace::TKind place = TPlace::cNoFolder;
    TRows table;         // what a file holds that is not damaged,
    std::string behind;  // what follows it there,
    bool damaged = false;
    std::string damage;  // and all that a damaged one holds
    std::optional<std::size_t> room;

    bool signalled = false;
    int semaphore = -1;
    bool attached = false;  // the semaphore is the one that the library opened
    TThread thread = cFirst;
    TThread schedulingThread = cNone;

    time_t clock = 0;
    std::vector<TStarting> starts = {{}};
    std::size_t startCount = 0;  // since the behaviours were set
    std::optional<std::string> listing;
    bool logFails = false;
    std::vector<std::string> happened;
};
