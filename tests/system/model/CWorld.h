#pragma once

#include <AddinLibrary.h>
#include <CEvent.h>
#include <FakeSystem.h>

#include <cstdio>
#include <functional>
#include <memory>

#include "CSecondThread.h"
#include "CSide.h"

// The built library with its real file, semaphore and event, in the working directory and in this
// process's IPC namespace, which are its own; the clock, the pauses, the programs' starts, the
// probe's shell and the log are played. One at a time.
class CWorld final : public CSide {
public:
    CWorld();
    ~CWorld() override;
    CWorld(const CWorld&) = delete;
    CWorld& operator=(const CWorld&) = delete;

    // From now on the library stays in the process where a world would unload it, and a thread that
    // nobody else is ticks once instead, so that no other thread counts as the scheduling one. For
    // programs that cannot bear an unload.
    static void KeepLibrary();

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
    void SetSignalled(bool signalled) override;
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

    // What the library's probe comes to instead of the system's own.
    std::FILE* OpenProbe(const std::string& command, const std::string& mode);
    int CloseProbe(std::FILE* pipe);

private:
    void LoadLibrary();
    void UnloadLibrary();
    void ForgetSchedulingThread();
    void WithRoom(const std::function<void()>& work);
    void InCall(const std::function<void()>& work);

    void NoteWaits();
    void OnStart(const CFakeSystem::TStart& start);
    void OnSleep();
    static void OnLog(const std::string& line, void* world);
    static void OnInformation(const std::string& flag, int value, void* world);

    CFakeSystem system{0};
    CEvent changed;
    CSecondThread second;
    bool onSecond = false;
    std::shared_ptr<CAddinLibrary> library;  // null while it is not loaded

    std::vector<TStarting> starts = {{}};
    std::size_t startCount = 0;
    std::size_t notedWaits = 0;
    std::optional<std::string> listing;
    std::optional<std::size_t> room;
    bool logFails = false;
    std::vector<std::string> happened;
};
