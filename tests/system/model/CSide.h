#pragma once

#include <TableFile.h>

#include <cstddef>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

// What is in the place of the task file.
struct TPlace {
    enum TKind { cNoFolder, cNothing, cDirectory, cFile };

    TKind kind = cNoFolder;  // the folder "files" missing, empty, holding a folder or a file
    std::string bytes;       // of the file

    bool operator==(const TPlace&) const = default;
};

// How one start of a program goes, and what other processes do meanwhile.
struct TStarting {
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

// One of the two sides that are compared: the model, and the library with a played world around it.
// Each can be put through the same operations and looked at after each. It begins without a folder
// "files", with the library not loaded: Reload() comes first.
class CSide {
public:
    CSide() = default;
    virtual ~CSide() = default;

    // Thrown out of a call by the log while it is told to fail.
    struct TLogFailure {};

    // The exported functions, called by the thread that UseThread() chose.
    virtual bool IsScheduled(const char* name) = 0;
    virtual bool IsTaskRunning(const char* name) = 0;
    virtual void GetNextExecution(const char* name, long* next) = 0;
    virtual void GetLastExecuted(const char* name, long* last) = 0;
    virtual bool GetTaskPeriod(const char* name, unsigned int* period) = 0;
    virtual void CreateTask(const char* name, long start, unsigned int period, const char* program,
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

    // isLoad(), after the entry points were called in the ways that make and destroy nothing.
    virtual bool IsLoad() = 0;

    // The library, by the first thread and with a log that does not fail: unloaded if it is loaded,
    // and loaded; the add-in object destroyed and made again in the library that stays.
    virtual void Reload() = 0;
    virtual void Rebuild() = 0;

    // The world around it.
    virtual void SetClock(time_t time) = 0;
    virtual void UseThread(bool second) = 0;
    virtual void SetSignalled(bool signalled) = 0;
    virtual void PutTable(const TRows& rows, const std::string& behind) = 0;
    virtual void PutDamaged(const std::string& bytes) = 0;
    virtual void PutOther(TPlace::TKind kind) = 0;         // anything but a file
    virtual void CutFile(std::size_t bytes) = 0;           // takes them off a file's end
    virtual void SetRoom(std::optional<std::size_t>) = 0;  // bytes that a file can be written to
    virtual void SetStarts(const std::vector<TStarting>& starts) = 0;  // over and over; not empty
    virtual void SetListing(const std::optional<std::string>& output) = 0;  // none: no pipe
    virtual void SetLogFails(bool fails) = 0;
    virtual void RemoveSemaphore() = 0;
    virtual void LoadElsewhere() = 0;  // as far as the semaphore sees it

    // `happened` begins anew with each look.
    virtual TSight Look() = 0;

protected:
    CSide(const CSide&) = default;
    CSide& operator=(const CSide&) = default;
};

// How both sides word what happens.
std::string Started(const std::string& path, const std::vector<std::string>& arguments,
                    int semaphore);
std::string Slept(unsigned int seconds, int semaphore);
std::string Logged(const std::string& line);
std::string FlagSet(const std::string& flag, int value);
std::string Probed(const std::string& command, const std::string& mode, int semaphore);
inline constexpr char cWaitedForChild[] = "looked after the child once";
inline constexpr char cProbeClosed[] = "the probe was closed";
