#pragma once

#include <mutex>
#include <string>

#include "base/CDescriptor.h"

// Severity of a message, numbered as in syslog and the journal.
enum class EPriority : int { cError = 3, cWarning = 4, cNotice = 5, cInfo = 6, cDebug = 7 };

// The log of the host and of the add-in: standard error, or a file. Each message is one line,
// written by one write(), and shows what Show() makes of its bytes.
//
// Where standard error is the journal, which adds its own times, a line begins with its priority,
// as in "<4>". Elsewhere it begins with the local time and shows no priority; messages at debug
// level are then not written at all, since an operator would read them as errors.
//
// Any thread may write, also the worker. A failed write is ignored: a full disk must not end the
// scheduler.
class CHostLog {
public:
    // The log of this process. It is never destroyed, since the add-in still logs while finalisers
    // run.
    static CHostLog& Instance();

    // Receives the add-in's messages from now on.
    void CaptureAddInMessages();

    // Writes to this file from now on. Throws CHostError (cFailed) when it cannot be opened.
    void WriteTo(const std::string& path);

    // Opens the file again after somebody moved it away, and logs that. If that fails, it logs why
    // and keeps the old file. No effect on standard error. For the thread that called WriteTo().
    void Reopen();

    // Blocks for up to a second when the reader of a pipe or socket has stalled. After that, lines
    // are dropped without a wait and counted until the reader takes data again; the count is then
    // logged.
    void Write(EPriority priority, const std::string& message);

    // Reports why the host cannot run: in the log file, if there is one, and on standard error
    // without a time.
    void Fail(const std::string& message);

private:
    CHostLog();
    static void Sink(const std::string& message, void* context);
    void WriteMessage(EPriority priority, const char* origin, const std::string& message);

    // The caller holds `mutex`.
    void WriteLine(int descriptor, const std::string& prefix, const std::string& message);
    bool WriteAll(int descriptor, const std::string& line);

    std::mutex mutex;  // guards all below
    const bool isJournal;
    std::string path;
    CDescriptor file;
    std::size_t droppedLines = 0;  // since the reader stalled
};

void LogError(const std::string& message);
void LogWarning(const std::string& message);
void LogNotice(const std::string& message);
void LogInfo(const std::string& message);
