#include "VXC_Log.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <mutex>

namespace {

// Nothing here is destroyed at exit: the add-in still logs while the process's last finalisers run.
constinit std::mutex gLogMutex;
constinit VXC_LogSink gLogSink = nullptr;
constinit void* gLogContext = nullptr;

// As 2026-11-20T14:30:05.123+01:00
std::string TimeOfNow() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    char date[32];
    std::strftime(date, sizeof date, "%FT%T", &local);
    const long minutes = (local.tm_gmtoff < 0 ? -local.tm_gmtoff : local.tm_gmtoff) / 60;
    char text[80];
    std::snprintf(text, sizeof text, "%s.%03ld%c%02ld:%02ld", date, now.tv_nsec / 1'000'000,
                  local.tm_gmtoff < 0 ? '-' : '+', minutes / 60, minutes % 60);
    return text;
}

void WriteLine(const std::string& message) {
    std::string line = TimeOfNow() + ' ' + message;
    for (char& character : line) {
        if (static_cast<unsigned char>(character) < ' ' || character == '\x7f')
            character = ' ';
    }
    line += '\n';
    for (std::size_t done = 0; done < line.size();) {
        const ssize_t count = write(STDERR_FILENO, line.data() + done, line.size() - done);
        if (count >= 0)
            done += static_cast<std::size_t>(count);
        else if (errno != EINTR)
            return;
    }
}

}  // namespace

// By value: the type is part of the symbol that add-ins are linked to.
// NOLINTNEXTLINE(performance-unnecessary-value-param)
void VXC_LogMessage(std::string message) {
    const std::lock_guard<std::mutex> lock(gLogMutex);
    if (gLogSink != nullptr)
        gLogSink(message, gLogContext);
    else
        WriteLine(message);
}

void VXC_SetLogSink(VXC_LogSink sink, void* context) {
    const std::lock_guard<std::mutex> lock(gLogMutex);
    gLogSink = sink;
    gLogContext = context;
}
