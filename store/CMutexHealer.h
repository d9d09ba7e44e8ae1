#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "store/CWriterLock.h"
#include "store/MutexHolders.h"
#include "store/StoreMutexState.h"

namespace vxsched {

// Sets a wedged store mutex free: one that nobody holds and nobody can take, or that lets several
// in at once. Processes that load the add-in bring that about. A load sets the mutex free and makes
// the kernel forget its holder's operation; the holder's release then counts on its own, and the
// end of that process takes 1 from a free mutex.
//
// It observes the state for a while, then makes certain that nobody holds the mutex, and sets its
// value to 1, which also makes the kernel forget all operations of living processes. A release
// would not do: with SEM_UNDO the end of the healing process would take it back, and without it the
// forgotten operations of others would still count.
//
// For one thread. The functions throw CError (cNoAccess, cFailed).
class CMutexHealer {
public:
    // For so long the state has to be unchanged: far longer than a use that only looks like one,
    // such as of a process that has taken the mutex and was not scheduled since.
    static constexpr std::chrono::milliseconds cUnchangedTime{2000};

    explicit CMutexHealer(std::chrono::milliseconds unchangedTime = cUnchangedTime)
        : wait(unchangedTime) {}

    enum EUse {
        cFree,      // or there is no mutex
        cInUse,     // not free, but not for long enough or not in the same state
        cUnchanged  // not free for at least the time above: Heal() is worth a try
    };

    // Reads the state. To be called again and again; does not block.
    EUse Observe();

    struct TResult {
        bool isHealed = false;
        int value = 0;                          // before that: 0, or how many could hold it at once
        std::optional<TPossibleHolder> holder;  // because of whom it was left alone

        // The mutex is not known to be anything but held: its last user lives and may hold it.
        bool isUsual = false;
    };

    // After Observe() has returned cUnchanged: sets the mutex free if nobody can hold it. Neither
    // healed nor a holder: the state has changed meanwhile. The caller does not hold the mutex; the
    // writer lock keeps clients from changes. Blocks as long as a search through /proc takes.
    TResult Heal(const CWriterLock& writerLock);

    // The value of the mutex when it was observed last; 1 if there is none.
    int Value() const { return last ? last->value : 1; }

private:
    using TClock = std::chrono::steady_clock;

    const std::chrono::milliseconds wait;
    std::optional<TMutexState> last;
    TClock::time_point since;  // of that state
};

// What was done, for a log or a person.
std::string DescribeHealed(const CMutexHealer::TResult& result);

}  // namespace vxsched
