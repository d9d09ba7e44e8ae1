#include "host/CTableGuard.h"

#include <CEvent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <malloc.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <system_error>

#include "client/CClientError.h"
#include "client/CStoreLock.h"
#include "client/Salvage.h"
#include "client/SchedulingProcess.h"
#include "client/Sources.h"
#include "client/TableFile.h"
#include "host/CHostLog.h"
#include "host/CTickTimer.h"
#include "host/StartMarks.h"
#include "host/StopEvent.h"

using vxsched::TTaskEntry;

namespace {

constexpr char cTable[] = "scheduler.dat";
constexpr std::chrono::milliseconds cPatience(200);  // for the mutex; a tick may hold it for long
constexpr int cAgain = 100;                          // milliseconds until the next try
constexpr int cWithoutLimit = -1;

// In the place of the table, also on a disk that is full: then over the former bytes.
void WriteTable(const std::string& bytes) {
    try {
        vxsched::ReplaceTable(".", bytes);
        return;
    } catch (const vxsched::CClientError&) {
        // What follows needs no room.
    }
    const CDescriptor file(open(vxsched::TableFile(".").c_str(), O_WRONLY | O_CLOEXEC));
    if (!file.IsOpen() ||
        pwrite(file.Get(), bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size()) ||
        ftruncate(file.Get(), static_cast<off_t>(bytes.size())) == -1)
        throw vxsched::SystemError("cannot write the table", errno);
}

std::vector<TTaskEntry> TasksOf(const std::string& bytes) {
    return vxsched::DecodeTable(bytes, vxsched::Now()).tasks;
}

void Tell(const std::vector<std::string>& notes) {
    for (const std::string& note : notes)
        LogError(note);
}

}  // namespace

CTableGuard::CTableGuard(std::size_t snapshotCount)
    : changes(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)),
      calls(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      snapshots(snapshotCount) {
    if (inotify_add_watch(changes.Get(), "files", IN_CLOSE_WRITE | IN_MOVE | IN_DELETE) == -1)
        LogWarning(
            fmt::format("cannot watch the folder \"files\": {}. No snapshots are taken and "
                        "nothing is restored.",
                        std::strerror(errno)));
    Look();
}

void CTableGuard::Begin() {
    besideTheWorker = true;
    try {
        thread = std::thread([this] { Run(); });
    } catch (const std::system_error& error) {
        LogWarning(
            fmt::format("cannot look after the table: {}. Look at the limits of threads and "
                        "memory.",
                        error.what()));
    }
}

CTableGuard::~CTableGuard() {
    End();
}

void CTableGuard::End() {
    stopping = true;
    eventfd_write(calls.Get(), 1);
    if (thread.joinable())
        thread.join();
}

void CTableGuard::TasksDeleted() {
    deleted = true;
    eventfd_write(calls.Get(), 1);
}

void CTableGuard::Run() {
    TellHostThread();
    int wait = cWithoutLimit;
    while (!stopping) {
        pollfd sources[] = {{.fd = changes.Get(), .events = POLLIN, .revents = 0},
                            {.fd = calls.Get(), .events = POLLIN, .revents = 0}};
        // Before another try what is still to be read would end the wait at once.
        if (wait != cWithoutLimit)
            sources[0].fd = -1;
        if (poll(sources, std::size(sources), wait) == -1 && errno != EINTR)
            return;
        eventfd_t ignored = 0;
        eventfd_read(calls.Get(), &ignored);
        wait = stopping || Look() ? cWithoutLimit : cAgain;
        // What a look needed, some hundred bytes a task, is not needed until the next one.
        if (wait == cWithoutLimit)
            malloc_trim(0);
    }
}

// Counts the saves that the events tell of.
void CTableGuard::TakeEvents() {
    alignas(inotify_event) std::array<char, 4096> block{};
    std::string movedFrom;
    for (ssize_t count = 0; (count = read(changes.Get(), block.data(), block.size())) > 0;) {
        for (const char* place = block.data(); place < block.data() + count;) {
            const auto* const event = reinterpret_cast<const inotify_event*>(place);
            place += sizeof *event + event->len;
            const std::string_view name = event->len > 0 ? event->name : "";
            if ((event->mask & IN_MOVED_FROM) != 0)
                movedFrom = name;
            // Where saves went by uncounted, nothing can be said of what is gone.
            if ((event->mask & IN_Q_OVERFLOW) != 0)
                saves.replacedWhole = true;
            if (name != cTable || (event->mask & IN_DELETE) != 0)
                continue;
            if ((event->mask & IN_CLOSE_WRITE) != 0 ||
                movedFrom.find(".save-") != std::string::npos)
                ++saves.count;
            else
                saves.replacedWhole = true;
        }
    }
}

// False when it is to be tried again.
bool CTableGuard::Look() {
    try {
        const vxsched::CStoreLock lock(cPatience);
        // A client that loaded the library at a bad moment may have let this one in beside a tick,
        // whose starts the table does not show yet.
        if (besideTheWorker && CEvent::UseOf(cStopEventName).waiters == 0)
            return false;
        TakeEvents();
        LookAt(vxsched::ReadTableBytes("."));
        trouble.clear();
        return true;
    } catch (const vxsched::CClientError& error) {
        if (error.Code() != vxsched::EError::cBusy && trouble != error.what()) {
            trouble = error.what();
            LogError(fmt::format("cannot look after the table: {}; trying on", trouble));
        }
        return false;
    } catch (const std::exception&) {
        return false;  // out of memory, which may pass
    }
}

void CTableGuard::LookAt(const std::string& bytes) {
    std::vector<TTaskEntry> tasks;
    try {
        tasks = TasksOf(bytes);
    } catch (const vxsched::CClientError& error) {
        const std::optional<vxsched::TSource> source =
            lastGood ? vxsched::TSource{"the last good table", TasksOf(*lastGood)}
                     : vxsched::FindSource(".");
        const vxsched::TRepair repair =
            vxsched::PlanRepair(bytes, source ? &*source : nullptr, vxsched::Now());
        Tell(repair.notes);
        Restore(bytes, error.what(), repair.tasks);
        return;
    }
    if (std::vector<TTaskEntry> lost = FindLost(tasks); !lost.empty()) {
        std::string names;
        for (TTaskEntry& task : lost) {
            names += fmt::format("{}\"{}\"", names.empty() ? "" : ", ", task.name);
            tasks.push_back(std::move(task));
        }
        Restore(bytes, "the table has lost " + names, std::move(tasks));
        return;
    }
    const std::vector<TStartMark> marks = ReadMarks();
    const bool isBehind = ApplyMarks(marks, vxsched::Now(), tasks) > 0;
    if (deleted || isBehind) {
        Restore(bytes, "the add-in could not save its table", std::move(tasks));
        return;
    }
    for (const TStartMark& mark : FindShown(marks, tasks))
        RemoveMark(mark);
    Keep(bytes);
}

// The tasks of the last good table that are gone, if they are more than can have been removed.
std::vector<TTaskEntry> CTableGuard::FindLost(const std::vector<TTaskEntry>& tasks) const {
    std::vector<TTaskEntry> lost;
    if (!lastGood || saves.replacedWhole)
        return lost;
    const vxsched::TTime now = vxsched::Now();
    for (const TTaskEntry& task : TasksOf(*lastGood)) {
        const bool hasRun = task.period == 0 && task.next <= now;
        if (!hasRun && std::none_of(tasks.begin(), tasks.end(),
                                    [&](const TTaskEntry& each) { return each.name == task.name; }))
            lost.push_back(task);
    }
    return lost.size() > saves.count ? lost : std::vector<TTaskEntry>();
}

// The caller holds the mutex.
void CTableGuard::Restore(const std::string& bytes, const std::string& why,
                          std::vector<TTaskEntry> tasks) {
    ApplyMarks(ReadMarks(), vxsched::Now(), tasks);
    const std::string wanted = vxsched::EncodeTable(tasks);
    KeepDamaged(bytes, wanted);
    if (wanted != bytes)
        WriteTable(wanted);
    vxsched::AnnounceChange();
    vxsched::WakeSchedulingProcess();
    LogError(fmt::format("{}: the table is restored, with {} task(s)", why, tasks.size()));
    for (const TStartMark& mark : FindShown(ReadMarks(), tasks))
        RemoveMark(mark);
    deleted = false;
    TakeEvents();
    Keep(wanted);
}

// Once, however often the table in its place has to be tried.
void CTableGuard::KeepDamaged(const std::string& bytes, const std::string& wanted) {
    if (bytes == wanted || bytes == damaged)
        return;
    try {
        vxsched::PutAside(".", bytes);
    } catch (const vxsched::CClientError& error) {
        LogWarning(error.what());
    }
    damaged = bytes;
}

void CTableGuard::Keep(const std::string& bytes) {
    if (!lastGood || *lastGood != bytes)
        lastGood = std::make_shared<const std::string>(bytes);
    saves = {};
    try {
        snapshots.Keep(lastGood);
    } catch (const std::system_error& error) {
        LogWarning(fmt::format("no snapshot of the table: {}", error.what()));
    }
}
