#pragma once

#include <TableFile.h>

#include <cstddef>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

// What is in the place of the task file.
struct TPlace {
    enum TKind { cNoDirectory, cNothing, cDirectory, cFile };

    TKind kind =
        cNoDirectory;   // directory "files": missing, empty, or holding a directory or a file
    std::string bytes;  // of the file

    bool operator==(const TPlace&) const = default;
};

// The outcome of one launch of a program, and what other processes do during it.
struct TLaunchOutcome {
    bool fails = false;    // posix_spawn
    bool ended = false;    // by the time of waitpid
    bool signals = false;  // the task-changed event is signalled
    bool deletes = false;  // the task file is deleted
    bool loads = false;    // the library is loaded, which sets the semaphore to 1
};

// All that can be seen of a side after an operation.
struct TSight {
    TPlace place;
    TRows list;                         // the process's own
    std::vector<std::string> happened;  // during the operation, in order
    bool signalled = false;
    int semaphore = -1;  // -1 when there is none
    time_t clock = 0;

    bool operator==(const TSight&) const = default;
};

// One of the two sides that are compared: the model, and the library in a fake environment. The
// same operations are applied to both, and both are observed after each. A side begins without a
// directory "files" and with the library not loaded: call Reload() first.
class CSide {
public:
    CSide() = default;
    virtual ~CSide() = default;

    // Thrown out of a call by the log after SetLogFails(true).
    struct TLogFailure {};

    // The exported functions, called by the thread that UseThread() chose.
    virtual bool IsScheduled(const char* name) = 0;
    virtual bool IsTaskRunning(const char* name) = 0;
    virtual void GetNextExecution(const char* name, long* next) = 0;
    virtual void GetLastExecuted(const char* name, long* last) = 0;
    virtual bool GetTaskPeriod(const char* name, unsigned int* period) = 0;
    virtual void CreateTask(const char* name, long due, unsigned int period, const char* program,
                            const char* parameters) = 0;
    virtual void DestroyTask(const char* name) = 0;
    virtual void PauseTask(const char* name) = 0;
    virtual void ResumeTask(const char* name) = 0;
    virtual bool SetTaskPeriod(const char* name, unsigned int period) = 0;
    virtual void ExecuteTaskNow(const char* name, bool force) = 0;

    // The add-in object, likewise.
    virtual void Tick() = 0;
    virtual void Load() = 0;
    virtual void Unload() = 0;

    // isLoad(), after calls of the entry points that create and destroy nothing.
    virtual bool IsLoad() = 0;

    // On the first thread, with a log that does not fail. Reload() unloads the library if it is
    // loaded, then loads it; Rebuild() destroys and creates the add-in object in the loaded
    // library.
    virtual void Reload() = 0;
    virtual void Rebuild() = 0;

    // The environment.
    virtual void SetClock(time_t time) = 0;
    virtual void UseThread(bool second) = 0;
    virtual void SetSignalled(bool signalled) = 0;
    virtual void PutTable(const TRows& rows, const std::string& trailing) = 0;
    virtual void PutDamaged(const std::string& bytes) = 0;
    virtual void PutOther(TPlace::TKind kind) = 0;         // anything but a file
    virtual void CutFile(std::size_t bytes) = 0;           // removes that many from a file's end
    virtual void SetRoom(std::optional<std::size_t>) = 0;  // bytes that a file can be written to
    virtual void SetLaunches(const std::vector<TLaunchOutcome>& outcomes) = 0;  // cyclic; not empty
    virtual void SetListing(const std::optional<std::string>& output) = 0;      // none: no pipe
    virtual void SetLogFails(bool fails) = 0;
    virtual void RemoveSemaphore() = 0;
    virtual void LoadElsewhere() = 0;  // its effect on the semaphore only

    // Each call clears `happened`.
    virtual TSight Observe() = 0;

protected:
    CSide(const CSide&) = default;
    CSide& operator=(const CSide&) = default;
};

// The lines by which both sides report what happens.
std::string Started(const std::string& path, const std::vector<std::string>& arguments,
                    int semaphore);
std::string Slept(unsigned int seconds, int semaphore);
std::string Logged(const std::string& line);
std::string FlagSet(const std::string& flag, int value);
std::string Probed(const std::string& command, const std::string& mode, int semaphore);
inline constexpr char cWaitedForChild[] = "checked the child once";
inline constexpr char cProbeClosed[] = "the probe was closed";
