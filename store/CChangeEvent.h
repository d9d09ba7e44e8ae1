#pragma once

#include <CEvent.h>

#include <string>

namespace vxsched {

// The task-changed event, opened before the table is changed, so that a change which could not be
// announced is not made.
class CChangeEvent {
public:
    // Opens the event, or makes it where there is none. Does not block. Throws CError (cNoAccess,
    // cFailed).
    CChangeEvent();

    // Announces a change that is made, as AnnounceChange() does: the caller still holds the store
    // mutex. Returns why that failed and what it means, for a person; empty if it did not fail.
    std::string Announce();

private:
    CEvent event;
};

}  // namespace vxsched
