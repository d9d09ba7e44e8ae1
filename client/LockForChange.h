#pragma once

#include <vxsched/Error.h>
#include "store/MakeError.h"

namespace vxsched {

// Takes a lock before a change has begun; `arguments` are those of its constructor. Throws what that
// throws; the message of cBusy adds that nothing was changed, and what to do.
template <typename Lock, typename... Arguments>
Lock LockForChange(const Arguments&... arguments) {
    try {
        return Lock(arguments...);
    } catch (const CError& error) {
        if (error.Code() != EError::cBusy)
            throw;
        throw MakeError(EError::cBusy,
                        "{}; nothing was changed; try again, or with a longer lock timeout "
                        "(--lock-timeout)",
                        error.what());
    }
}

}  // namespace vxsched
