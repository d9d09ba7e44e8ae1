#include "host/CHostLog.h"

#include <VXC_Log.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>

#include "base/DisplayText.h"
#include "base/IsoTime.h"
#include "base/OpenToAppend.h"
#include "host/CHostError.h"

static constexpr char cHostPrefix[] = "vxschedd: ";
static constexpr int cStallTimeout = 1000;  // milliseconds

// JOURNAL_STREAM holds device and inode of the socket that systemd connected to the journal.
// Standard error may have been redirected since, so the two are compared.
static bool StandardErrorIsTheJournal() {
    const char* const stream = std::getenv("JOURNAL_STREAM");
    struct stat status {};
    return stream != nullptr && fstat(STDERR_FILENO, &status) == 0 &&
           fmt::format("{}:{}", status.st_dev, status.st_ino) == stream;
}

static std::string PriorityPrefix(EPriority priority) {
    return fmt::format("<{}>", static_cast<int>(priority));
}

// The add-in logs without priorities.
static EPriority PriorityOfAddInMessage(const std::string& message) {
    // Logged after every launch of a program that does not end at once: it is still running.
    if (message == "Failed waitpid.")
        return EPriority::cDebug;
    if (message.starts_with("An exception was generated") ||
        message.starts_with("Not possible to execute"))
        return EPriority::cError;
    return EPriority::cNotice;
}

CHostLog::CHostLog() : isJournal(StandardErrorIsTheJournal()) {}

CHostLog& CHostLog::Instance() {
    static CHostLog& instance = *new CHostLog;
    return instance;
}

void CHostLog::Sink(const std::string& message, void* context) {
    static_cast<CHostLog*>(context)->WriteMessage(PriorityOfAddInMessage(message), "", message);
}

void CHostLog::CaptureAddInMessages() {
    VXC_SetLogSink(Sink, this);
}

void CHostLog::WriteTo(const std::string& newPath) {
    std::string error;
    CDescriptor opened = OpenToAppend(newPath, 0, 0600, EAppendable::cAlsoAPipe, error);
    if (!opened.IsOpen())
        throw CHostError(cFailed,
                         fmt::format("cannot open the log {}: {}. Choose another file with --log.",
                                     newPath, error));
    const std::lock_guard<std::mutex> lock(mutex);
    path = newPath;
    file = std::move(opened);
}

void CHostLog::Reopen() {
    if (!file.IsOpen())
        return;
    try {
        WriteTo(std::string(path));
        LogInfo("reopened the log");
    } catch (const CHostError& error) {
        LogError(error.what());
    }
}

void CHostLog::Write(EPriority priority, const std::string& message) {
    WriteMessage(priority, cHostPrefix, message);
}

// `origin` is what precedes the message where the journal does not show which program wrote it.
void CHostLog::WriteMessage(EPriority priority, const char* origin, const std::string& message) {
    const std::lock_guard<std::mutex> lock(mutex);
    if (isJournal && !file.IsOpen())
        WriteLine(STDERR_FILENO, PriorityPrefix(priority), message);
    else if (priority != EPriority::cDebug)
        WriteLine(file.IsOpen() ? file.Get() : STDERR_FILENO,
                  LocalTime(CurrentMoment()) + ' ' + origin, message);
}

void CHostLog::Fail(const std::string& message) {
    const std::lock_guard<std::mutex> lock(mutex);
    if (file.IsOpen())
        WriteLine(file.Get(), LocalTime(CurrentMoment()) + ' ' + cHostPrefix, message);
    WriteLine(STDERR_FILENO, isJournal ? PriorityPrefix(EPriority::cError) : cHostPrefix, message);
}

void CHostLog::WriteLine(int descriptor, const std::string& prefix, const std::string& message) {
    const std::string line = prefix + vxsched::Show(message).string + '\n';
    if (droppedLines > 0) {
        const std::string loss =
            fmt::format("{}{} line(s) lost: the reader had stalled\n", prefix, droppedLines);
        if (!WriteAll(descriptor, loss)) {
            ++droppedLines;
            return;
        }
        droppedLines = 0;
    }
    if (!WriteAll(descriptor, line))
        ++droppedLines;
}

// False when the reader has stalled. A line that fails with an error counts as written: it is gone
// either way.
bool CHostLog::WriteAll(int descriptor, const std::string& line) {
    // A writable pipe takes this much without blocking.
    constexpr std::size_t cMostBytes = PIPE_BUF;
    for (std::size_t done = 0; done < line.size();) {
        pollfd reader{.fd = descriptor, .events = POLLOUT, .revents = 0};
        if (poll(&reader, 1, droppedLines == 0 ? cStallTimeout : 0) == 0)
            return false;
        const ssize_t count =
            write(descriptor, line.data() + done, std::min(line.size() - done, cMostBytes));
        if (count >= 0)
            done += static_cast<std::size_t>(count);
        else if (errno != EINTR)
            return true;
    }
    return true;
}

void LogError(const std::string& message) {
    CHostLog::Instance().Write(EPriority::cError, message);
}

void LogWarning(const std::string& message) {
    CHostLog::Instance().Write(EPriority::cWarning, message);
}

void LogNotice(const std::string& message) {
    CHostLog::Instance().Write(EPriority::cNotice, message);
}

void LogInfo(const std::string& message) {
    CHostLog::Instance().Write(EPriority::cInfo, message);
}
