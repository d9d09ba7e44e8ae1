#pragma once

#include <vxsched/Error.h>
#include "store/MakeError.h"

namespace vxsched {

// Does what a change needs before it begins, such as a read, which may find the store in use. Throws
// what `action` throws; the message of cBusy adds that nothing was changed, and what to do.
template <typename Action>
auto DoBeforeChange(const Action& action) {
    try {
        return action();
    } catch (const CError& error) {
        if (error.Code() != EError::cBusy)
            throw;
        throw MakeError(EError::cBusy,
                        "{}; nothing was changed; try again, or with a longer lock timeout "
                        "(--lock-timeout)",
                        error.what());
    }
}

// Takes a lock before a change has begun; `arguments` are those of its constructor.
template <typename Lock, typename... Arguments>
Lock LockForChange(const Arguments&... arguments) {
    return DoBeforeChange([&] { return Lock(arguments...); });
}

}  // namespace vxsched
