#pragma once

#include <string>
#include <vector>

// While it exists, collects the messages that this process logs, the add-in included, instead of
// printing them to standard error.
class CLogCapture {
public:
    CLogCapture();
    ~CLogCapture();
    CLogCapture(const CLogCapture&) = delete;
    CLogCapture& operator=(const CLogCapture&) = delete;

    // The messages since the last call.
    std::vector<std::string> Take();

private:
    static void Sink(const std::string& message, void* context);
    std::vector<std::string> messages;
};

inline constexpr char cReadingFailed[] =
    "An exception was generated while reading schedule tasks from file. All the programed tasks "
    "were lost.";
inline constexpr char cWritingFailed[] =
    "An exception was generated while writing schedule tasks from file. All the programed tasks "
    "were lost.";
inline constexpr char cLaunchFailed[] = "Not possible to execute program.";
inline constexpr char cStillRunning[] = "Failed waitpid.";
inline constexpr char cLoadCalled[] = "Failed to start up thread in Scheduler AddIn.";
