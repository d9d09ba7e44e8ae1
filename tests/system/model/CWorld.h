#pragma once

#include <AddinLibrary.h>
#include <CEvent.h>
#include <FakeSystem.h>

#include <cstdio>
#include <functional>
#include <memory>

#include "CSecondThread.h"
#include "CSide.h"

// The built library with a real file, semaphore and event, in the working directory and in the IPC
// namespace of this process; the clock, the pauses, the launches, the probe's shell and the log are
// fakes. At most one exists at a time.
class CWorld final : public CSide {
public:
    CWorld();
    ~CWorld() override;
    CWorld(const CWorld&) = delete;
    CWorld& operator=(const CWorld&) = delete;

    // From now on the library stays loaded where a world would unload it. Instead, a thread that is
    // used for nothing else ticks once, so that no thread of the test is the scheduling one. For
    // programs that cannot unload the library.
    static void KeepLibrary();

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
    void SetSignalled(bool signalled) override;
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

    // popen and pclose of the library's probe.
    std::FILE* OpenProbe(const std::string& command, const std::string& mode);
    int CloseProbe(std::FILE* pipe);

private:
    void LoadLibrary();
    void UnloadLibrary();
    void ForgetSchedulingThread();
    void WithRoom(const std::function<void()>& work);
    void InCall(const std::function<void()>& work);

    void NoteWaits();
    void OnLaunch(const CFakeSystem::TLaunch& launch);
    void OnSleep();
    static void OnLog(const std::string& line, void* world);
    static void OnInformation(const std::string& flag, int value, void* world);

    CFakeSystem system{0};
    CEvent changed;
    CSecondThread second;
    bool onSecond = false;
    std::shared_ptr<CAddinLibrary> library;  // null while it is not loaded

    std::vector<TLaunchOutcome> outcomes = {{}};
    std::size_t launchCount = 0;
    std::size_t notedWaits = 0;
    std::optional<std::string> listing;
    std::optional<std::size_t> room;
    bool logFails = false;
    std::vector<std::string> happened;
};
