#pragma once

#include <mutex>
#include <string>

#include "base/CDescriptor.h"

// How grave a message is, as syslog and the journal number it.
enum class EPriority : int { cError = 3, cWarning = 4, cNotice = 5, cInfo = 6, cDebug = 7 };

// Where the host and the add-in write what they have to say: standard error, or a file. One line a
// message, written by one write; control characters become blanks. Where standard error is the
// journal, which has its own times, a line begins with its priority as in "<4>", else with the local
// time. A log that cannot be written is ignored. Any thread may write.
class CHostLog {
public:
    // The one of this process; it is never destroyed, since the add-in still logs while the process's
    // last finalisers run.
    static CHostLog& Instance();

    // Makes it the add-in's log as well.
    void TakeAddInsMessages();

    // Writes to this file from now on. Throws CHostError (cFailed) when it cannot be opened.
    void WriteTo(const std::string& path);

    // Opens the file anew, after somebody moved it away; it stays the old one when that fails. Either
    // is logged. No effect on standard error. For the thread that called WriteTo().
    void Reopen();

    // A pipe or socket that nobody empties is waited for once, for a second; its lines are lost then,
    // and counted, until it takes some again: the scheduler goes on.
    void Write(EPriority priority, const std::string& text);

    // Says why the host cannot run, in the log and on standard error without a time.
    void Fail(const std::string& text);

private:
    CHostLog();
    static void Sink(const std::string& message, void* context);
    void WriteLine(int descriptor, const std::string& beginning, const std::string& text);
    bool WriteAll(int descriptor, const std::string& line);

    std::mutex mutex;
    const bool isJournal;
    std::string path;
    CDescriptor file;
    std::size_t lost = 0;  // lines, since nobody takes them
};

void LogError(const std::string& text);
void LogWarning(const std::string& text);
void LogNotice(const std::string& text);
void LogInfo(const std::string& text);
