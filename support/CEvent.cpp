#include "CEvent.h"

#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <initializer_list>
#include <system_error>
#include <utility>

#include "VXC_CRC32.h"

namespace {

// The semaphores of one event's set. A fresh set holds three zeros, which is a valid event that is
// not signalled and that no object has open; so creation needs no second step that a race could
// lose.
enum : unsigned short {
    cState,    // 1 signalled, 0 not
    cOpeners,  // objects that have the event open; the kernel removes those of a process that
               // ends
    cRetired,  // 1 once the last opener has left and is about to remove the set
    cCount
};

constexpr int cAccess = 0660;

union semun {
    int val;
    struct semid_ds* buf;
    unsigned short* array;
};

constexpr short cNow = IPC_NOWAIT;
constexpr short cNowUndo = IPC_NOWAIT | SEM_UNDO;

// All of the operations at once or, with errno EAGAIN, none of them.
bool Atomically(int id, std::initializer_list<sembuf> operations) {
    sembuf copy[4];
    std::size_t count = 0;
    for (const sembuf& operation : operations)
        copy[count++] = operation;
    return semop(id, copy, count) == 0;
}

bool SetIsGone(int error) {
    return error == EIDRM || error == EINVAL;
}

// Differs in one constant from the key of a mutex of the same name, so the two never collide, and
// is never IPC_PRIVATE (0), under which every open would create a new set.
key_t KeyOf(const std::string& name) {
    constexpr std::uint32_t difference = 0x45564E54;
    const std::uint32_t crc = VXC_GenerateCRC32(name);
    return static_cast<key_t>(crc == difference ? ~crc : crc ^ difference);
}

}  // namespace

CEvent::CEvent(std::string eventName, bool flag)
    : name(std::move(eventName)), manualReset(flag), key(KeyOf(name)), opener(getpid()) {
    Join();
}

CEvent::~CEvent() {
    if (getpid() == opener)
        Leave();
}

int CEvent::Wait(int milliseconds) {
    return WaitFor(milliseconds < 0 ? TTimeout() : std::chrono::milliseconds(milliseconds));
}

int CEvent::WaitSignalOrTimeout(int seconds) {
    return WaitFor(seconds < 0 ? TTimeout() : std::chrono::seconds(seconds));
}

void CEvent::SetEvent() {
    SetState(1);
}

void CEvent::ResetEvent() {
    SetState(0);
}

CEvent::TUse CEvent::UseOf(const std::string& name) {
    // Any number of semaphores: a set that is too small for an event is found as well.
    const int id = semget(KeyOf(name), 0, 0);
    if (id == -1)
        return {};
    return {.openers = std::max(0, semctl(id, cOpeners, GETVAL)),
            .waiters = std::max(0, semctl(id, cState, GETNCNT)),
            .set = id};
}

void CEvent::SetState(int state) {
    semun value{};
    value.val = state;
    for (;;) {
        const int id = semId;
        if (semctl(id, cState, SETVAL, value) != -1)
            return;
        if (!SetIsGone(errno))
            Fail(state == 1 ? "set" : "reset", errno);
        Reopen(id);
    }
}

int CEvent::WaitFor(TTimeout timeout) {
    using TClock = std::chrono::steady_clock;
    const TClock::time_point start = TClock::now();
    const bool test = timeout && timeout->count() == 0;
    // Taking and restoring the signal in one operation leaves it for every other waiter.
    sembuf take[] = {{.sem_num = cState, .sem_op = -1, .sem_flg = test ? cNow : short{0}},
                     {.sem_num = cState, .sem_op = 1, .sem_flg = 0}};
    const std::size_t count = manualReset ? 2 : 1;
    for (;;) {
        const int id = semId;
        timespec remaining{};
        if (timeout) {
            const std::chrono::nanoseconds left = *timeout - (TClock::now() - start);
            if (left.count() > 0)
                remaining = {.tv_sec = static_cast<time_t>(left.count() / 1'000'000'000),
                             .tv_nsec = static_cast<long>(left.count() % 1'000'000'000)};
        }
        if (semtimedop(id, take, count, timeout && !test ? &remaining : nullptr) == 0)
            return 1;
        if (errno == EAGAIN)
            return 0;
        if (SetIsGone(errno))
            Reopen(id);
        else if (errno != EINTR)
            Fail("wait for", errno);
    }
}

// Opens the event's set and counts this object among its openers.
void CEvent::Join() {
    for (;;) {
        const int id = semget(key, cCount, IPC_CREAT | cAccess);
        if (id == -1)
            Fail("open", errno);
        const sembuf notRetired{cRetired, 0, cNow};
        const sembuf nobody{cOpeners, 0, cNow};
        // The first to open it finds it not signalled: a fresh set is not, and the signal of a set
        // that killed processes left is cleared in the same step.
        if (Atomically(id, {notRetired, nobody, {cState, 0, cNow}, {cOpeners, 1, cNowUndo}}) ||
            Atomically(id, {notRetired, nobody, {cState, -1, cNow}, {cOpeners, 1, cNowUndo}}) ||
            Atomically(id, {notRetired, {cOpeners, -1, cNowUndo}, {cOpeners, 2, cNowUndo}})) {
            semId = id;
            return;
        }
        if (errno != EAGAIN) {
            if (!SetIsGone(errno))
                Fail("open", errno);
        } else if (semctl(id, cRetired, GETVAL) > 0) {
            // The closer may have been killed before removing it. Another user's set can stay so.
            if (semctl(id, 0, IPC_RMID) == -1 && !SetIsGone(errno))
                Fail("open", errno);
        }
    }
}

// Removes this object from the openers, and the set from the system if it was the last one.
// Retiring the set in the same step makes a process that opens the event in between create a new
// set. One that this process may not remove stays in use: retired, nobody else could open it.
void CEvent::Leave() noexcept {
    const int id = semId;
    for (;;) {
        if (Atomically(id, {{cOpeners, -1, cNowUndo}, {cOpeners, 0, cNow}, {cRetired, 1, cNow}})) {
            if (semctl(id, 0, IPC_RMID) == -1 && errno == EPERM)
                Atomically(id, {{cRetired, -1, cNow}});
            return;
        }
        if (Atomically(id, {{cOpeners, -2, cNowUndo}, {cOpeners, 1, cNowUndo}}))
            return;
        // Neither the last nor one of several: another opener left in between, or the set was
        // removed.
        if (errno != EAGAIN || semctl(id, cOpeners, GETVAL) <= 0)
            return;
    }
}

// Makes the event anew after its set was removed; the first of several threads to notice does it
// for all.
void CEvent::Reopen(int failedId) {
    const std::lock_guard<std::mutex> lock(reopening);
    if (semId == failedId)
        Join();
}

void CEvent::Fail(const char* operation, int error) const {
    throw std::system_error(error, std::generic_category(),
                            std::string(operation) + " the event \"" + name + '"');
}
