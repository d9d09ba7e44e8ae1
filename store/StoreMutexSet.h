#pragma once

#include <sys/types.h>

#include <optional>

namespace vxsched {

// The set of one System V semaphore that is the store mutex: making it, and giving it the value
// that its maker did not live to give it. The functions throw CError (cNoAccess, cFailed); any
// thread may call them.

// The user and group that a set is to belong to.
struct TSetOwner {
    uid_t user;
    gid_t group;
};

struct TStoreMutexSet {
    int id;
    bool isMade;  // by this call; else it existed
};

// Opens the set, or makes it, free, where there is none. Takes no lock and does not wait for a
// holder; blocks for at most 100 ms, for a set without a value. The kernel undoes nothing of this
// when the process ends. `owner` is for the superuser and for members of the store's group,
// whose sets the store's owner could not use.
TStoreMutexSet OpenOrMakeStoreMutex(const std::optional<TSetOwner>& owner = {});

// Whether the process that made a set was killed before it gave it a value: such a set has the value
// 0 and was never operated on, and everybody would wait for it. A maker needs microseconds, so this
// waits for 100 ms that somebody gives the value, and not at all for a set that has been used. Does
// not throw.
bool IsSetAbandoned(int set) noexcept;

// Gives an abandoned set its first value. Waits as IsSetAbandoned() does; `owner` as above. True if
// it gave the value. Does not throw.
bool InitialiseAbandonedSet(int set, const std::optional<TSetOwner>& owner = {}) noexcept;

}  // namespace vxsched
