// vxsched-change: makes one change to a table through the add-in, and ends without removing the
// store mutex. The client library starts it, once for each change; it may hang or be killed without
// harm to who asked for the change.

#include <VXC_Log.h>
#include <fcntl.h>
#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <limits>

#include <vxsched/Error.h>
#include <vxsched/SchedulingProcess.h>
#include "client/ChangeChecks.h"
#include "client/Fields.h"
#include "client/Request.h"
#include "client/change/CAddIn.h"
#include "client/change/Launches.h"
#include "interpose/Clock.h"
#include "store/CStoreMutexLock.h"
#include "store/CWriterLock.h"
#include "store/ProgramLinks.h"
#include "store/TableFile.h"

namespace vxsched {

namespace {

// The socket to the client, which is this process's standard input at its start.
int gClient = -1;

// A client that is gone is not told; the change is made all the same.
void Tell(const char* kind, const std::string& text) {
    std::string bytes;
    PutField(bytes, kind);
    PutField(bytes, text);
    std::string_view rest = bytes;
    while (!rest.empty()) {
        const ssize_t count = send(gClient, rest.data(), rest.size(), MSG_NOSIGNAL);
        if (count == -1 && errno == EINTR)
            continue;
        if (count <= 0)
            return;
        rest.remove_prefix(static_cast<std::size_t>(count));
    }
}

// The request; none when the client was gone before it had told all of it.
std::optional<TRequest> ReadRequest() {
    std::string bytes;
    char block[4096];
    ssize_t count = 0;
    while ((count = read(gClient, block, sizeof block)) != 0) {
        if (count > 0)
            bytes.append(block, static_cast<std::size_t>(count));
        else if (errno != EINTR)
            return {};
    }
    std::optional<std::string> whole = TakeField(bytes);
    if (!whole)
        return {};
    return DecodeRequest(std::move(*whole));
}

// Loads the add-in when nothing speaks against it. The mutex is held as a waiter, so that no holder
// is cut off by the load, which sets it free; that is how it is given back. When the load fails, the
// kernel gives it back at the end of this process, if it is still held.
std::optional<CAddIn> Load(TRequest& request) {
    CStoreMutexLock lock{std::chrono::milliseconds(request.lockTimeout)};
    const std::string bytes = ReadBytes(TableFile("."));
    const TTable table = DecodeTable(bytes, Now());
    if (const TTaskEntry* const due = FindDue(table, request)) {
        Tell(cMessageDue, due->name);
        return {};
    }
    CheckCalls(table, request);
    if (const TCall* const changed = FindChanged(table, request)) {
        Tell(cMessageChanged, changed->task.name);
        return {};
    }
    // In the same turn as the call, so that nobody takes a link away whose task is yet to come.
    for (TCall& call : request.calls) {
        if (const TTaskEntry* const task = table.Find(call.task.name))
            call.seen = *task;
        if (call.throughLink) {
            call.task.program = MakeSchedulable(request.directory, call.task.program);
            Tell(cMessageProgram, call.task.program);
        }
    }
    RemoveLeftovers(".");
    WriteBackup(".", bytes);
    Tell(cMessageBegun, "");
    lock.Forget();
    const CFrozenClock clock;
    return CAddIn(request.addIn);
}

void Create(const CAddIn& addIn, const TCall& call) {
    const long start = call.task.next.time_since_epoch().count();
    std::optional<CFrozenClock> clock;
    if (call.keepDue)
        clock.emplace();
    addIn.create(call.task.name.c_str(), &start, call.task.period, call.task.program.c_str(),
                 call.task.parameter.c_str());
}

// By the clock's rule a task that runs once and whose time has come is removed unrun.
void Resume(const CAddIn& addIn, const TCall& call) {
    std::optional<CFrozenClock> clock;
    if (!call.mayRemove && call.seen.period == 0)
        clock.emplace();
    addIn.resume(call.task.name.c_str());
}

void Make(const CAddIn& addIn, const TCall& call) {
    const char* const name = call.task.name.c_str();
    switch (call.function) {
        case TCall::cCreate:
            return Create(addIn, call);
        case TCall::cDestroy:
            return addIn.destroy(name);
        case TCall::cPause:
            return addIn.pause(name);
        case TCall::cResume:
            return Resume(addIn, call);
        case TCall::cSetPeriod:
            addIn.setPeriod(name, call.task.period);
            return;
        case TCall::cExecute:
            return addIn.executeNow(name, true);
    }
}

std::string ReadBack(const TRequest& request) {
    try {
        const CStoreMutexLock lock{std::chrono::milliseconds(request.lockTimeout)};
        return ReadBytes(TableFile("."));
    } catch (const CError& error) {
        throw CError(EError::cFailed,
                     std::string("the change was made but not verified: ") + error.what());
    }
}

void TidyLinks(const TRequest& request, const std::string& bytes) {
    std::optional<TTable> table;
    try {
        table = DecodeTable(bytes, Now());
    } catch (const CError&) {
        return;  // the client sees it as well, and puts the table from before back
    }
    RemoveUnusedLinks(request.directory, *table);
}

// What a client of the superuser makes belongs to whom the store belongs to, or its host could not
// use it: so this process becomes that user.
void BecomeTheOwner() {
    struct stat status {};
    if (geteuid() != 0 || stat("files", &status) == -1 || status.st_uid == 0)
        return;
    if (setgroups(0, nullptr) == -1 || setgid(status.st_gid) == -1 || setuid(status.st_uid) == -1)
        throw SystemError("cannot become the owner of the folder \"files\"", errno);
}

void Serve(TRequest& request) {
    pid_t started = 0;
    ListenToLaunches([&](pid_t process, int error) {
        // A start outside the schedule is not announced by the add-in, and the scheduling process
        // would write over its last start. It is announced here, where the mutex is held.
        AnnounceChange();
        started = process;
        if (process != 0)
            Tell(cMessageLaunched, std::to_string(process));
        else
            Tell(cMessageLaunchFailed, std::strerror(error));
    });
    {
        const CWriterLock turn(".", std::chrono::milliseconds(request.lockTimeout));
        const std::optional<CAddIn> addIn = Load(request);
        if (!addIn)
            return;
        for (const TCall& call : request.calls)
            Make(*addIn, call);
        const std::string bytes = ReadBack(request);
        TidyLinks(request, bytes);
        Tell(cMessageTable, bytes);
    }
    if (started == 0 || !request.calls.back().waitForEnd)
        return;
    if (const std::optional<int> status = WaitForEnd(started))
        Tell(cMessageEnded, std::to_string(*status));
}

int Main() {
    gClient = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 10);
    const int nothing = open("/dev/null", O_RDWR | O_CLOEXEC);
    dup2(nothing, STDIN_FILENO);
    std::optional<TRequest> request = ReadRequest();
    if (!request)
        return 1;
    // Whoever ignores it loses the ends of children.
    std::signal(SIGCHLD, SIG_DFL);
    VXC_SetLogSink([](const std::string& message, void*) { Tell(cMessageLog, message); }, nullptr);
    try {
        if (chdir(request->directory.c_str()) == -1)
            throw SystemError("cannot work in " + request->directory, errno);
        BecomeTheOwner();
        Serve(*request);
        return 0;
    } catch (const CError& error) {
        Tell(cMessageError, std::to_string(static_cast<int>(error.Code())) + ' ' + error.what());
    } catch (const std::exception& error) {
        Tell(cMessageError, std::to_string(static_cast<int>(EError::cFailed)) + ' ' + error.what());
    }
    return 1;
}

}  // namespace

}  // namespace vxsched

int main() {
    _exit(vxsched::Main());
}
