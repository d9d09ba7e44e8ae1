#include "host/CHostLog.h"

#include <VXC_Log.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>

#include "base/IsoTime.h"
#include "base/OpenToAppend.h"
#include "host/CHostError.h"

static constexpr char cHostsOwn[] = "vxschedd: ";
static constexpr int cPatience = 1000;  // milliseconds

// The service manager names the socket that it made standard error.
static bool StandardErrorIsTheJournal() {
    const char* const stream = std::getenv("JOURNAL_STREAM");
    struct stat status {};
    return stream != nullptr && fstat(STDERR_FILENO, &status) == 0 &&
           fmt::format("{}:{}", status.st_dev, status.st_ino) == stream;
}

static std::string Beginning(EPriority priority) {
    return fmt::format("<{}>", static_cast<int>(priority));
}

static EPriority PriorityOfAddIns(const std::string& message) {
    if (message == "Failed waitpid.")
        return EPriority::cDebug;  // the usual one for a program that is still running
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
    CHostLog& log = *static_cast<CHostLog*>(context);
    const std::lock_guard<std::mutex> lock(log.mutex);
    if (log.file.IsOpen() || !log.isJournal)
        log.WriteLine(log.file.IsOpen() ? log.file.Get() : STDERR_FILENO, LocalTime(Now()) + ' ',
                      message);
    else
        log.WriteLine(STDERR_FILENO, Beginning(PriorityOfAddIns(message)), message);
}

void CHostLog::TakeAddInsMessages() {
    VXC_SetLogSink(Sink, this);
}

void CHostLog::WriteTo(const std::string& newPath) {
    std::string whyNot;
    CDescriptor opened = OpenToAppend(newPath, 0, 0640, EAppendable::cAlsoAPipe, whyNot);
    if (!opened.IsOpen())
        throw CHostError(
            cFailed,
            fmt::format("cannot open the log {}: {}. Name another with --log.", newPath, whyNot));
    const std::lock_guard<std::mutex> lock(mutex);
    path = newPath;
    file = std::move(opened);
}

void CHostLog::Reopen() {
    if (!file.IsOpen())
        return;
    try {
        WriteTo(std::string(path));
        LogInfo("opened the log anew");
    } catch (const CHostError& error) {
        LogError(error.what());
    }
}

void CHostLog::Write(EPriority priority, const std::string& text) {
    const std::lock_guard<std::mutex> lock(mutex);
    if (file.IsOpen() || !isJournal)
        WriteLine(file.IsOpen() ? file.Get() : STDERR_FILENO, LocalTime(Now()) + ' ' + cHostsOwn,
                  text);
    else
        WriteLine(STDERR_FILENO, Beginning(priority), text);
}

void CHostLog::Fail(const std::string& text) {
    const std::lock_guard<std::mutex> lock(mutex);
    if (file.IsOpen())
        WriteLine(file.Get(), LocalTime(Now()) + ' ' + cHostsOwn, text);
    WriteLine(STDERR_FILENO, isJournal ? Beginning(EPriority::cError) : cHostsOwn, text);
}

void CHostLog::WriteLine(int descriptor, const std::string& beginning, const std::string& text) {
    std::string line = beginning + text;
    std::replace_if(
        line.begin(), line.end(),
        [](char character) {
            return static_cast<unsigned char>(character) < ' ' || character == '\x7f';
        },
        ' ');
    line += '\n';
    if (lost > 0) {
        const std::string loss =
            fmt::format("{}{} line(s) lost: nobody took them\n", beginning, lost);
        if (!WriteAll(descriptor, loss)) {
            ++lost;
            return;
        }
        lost = 0;
    }
    if (!WriteAll(descriptor, line))
        ++lost;
}

// False for a line that was not taken. What cannot be written at all counts as taken.
bool CHostLog::WriteAll(int descriptor, const std::string& line) {
    constexpr std::size_t cAtOnce = PIPE_BUF;  // what a pipe that can be written to takes
    for (std::size_t done = 0; done < line.size();) {
        pollfd taker{.fd = descriptor, .events = POLLOUT, .revents = 0};
        if (poll(&taker, 1, lost == 0 ? cPatience : 0) == 0)
            return false;
        const ssize_t count =
            write(descriptor, line.data() + done, std::min(line.size() - done, cAtOnce));
        if (count >= 0)
            done += static_cast<std::size_t>(count);
        else if (errno != EINTR)
            return true;
    }
    return true;
}

void LogError(const std::string& text) {
    CHostLog::Instance().Write(EPriority::cError, text);
}

void LogWarning(const std::string& text) {
    CHostLog::Instance().Write(EPriority::cWarning, text);
}

void LogNotice(const std::string& text) {
    CHostLog::Instance().Write(EPriority::cNotice, text);
}

void LogInfo(const std::string& text) {
    CHostLog::Instance().Write(EPriority::cInfo, text);
}
